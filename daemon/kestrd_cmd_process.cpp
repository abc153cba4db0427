#include "daemon/kestrd_cmd_process.h"

#include "daemon/kestrd_band.h"
#include "daemon/kestrd_enrollee.h"

int IEEE19051_CommandProcess(char* buf, int /*buflen*/) {
    if (buf == nullptr)
        return 0;
    const std::optional<kestr::Band> band = kestr::band_of_command(buf);
    if (!band)
        return 0;
    if (*band == kestr::Band::g2p4())
        IEEE19051_CmdApcloneProcess_2P4G();
    else
        IEEE19051_CmdApcloneProcess_5G();
    return 0;
}
