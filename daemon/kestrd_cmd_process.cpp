#include "daemon/kestrd_cmd_process.h"

#include <cstring>

#include "daemon/kestrd_apclone.h"

int IEEE19051_CommandProcess(char* buf, int /*buflen*/) {
    if (buf == nullptr)
        return 0;
    if (std::strncmp(buf, "apclone_24G", 11) == 0) {
        IEEE19051_CmdApcloneProcess_2P4G();
    } else if (std::strncmp(buf, "apclone_5G", 10) == 0) {
        IEEE19051_CmdApcloneProcess_5G();
    }
    return 0;
}
