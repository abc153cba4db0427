// The enrollee's registration: M1 out, M2 in, settings saved.
#define KESTR_REPORT_MODULE "kestrd_apclone"

#include "daemon/kestrd_apclone.h"
#include "port/common/report.h"

int sendM1(char* /*destmac*/, int /*freqBand*/) {
    KESTR_INFO("sendM1\n");
    return -1;
}

int msgApcloneProcesM2(int /*type*/, u_int8_t* buf, int /*recvlen*/) {
    if (buf == nullptr) return -1;
    return 0;
}
