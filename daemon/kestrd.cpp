// kestrd: clones the Wi-Fi settings of one access point onto another over
// IEEE 1905.1.
//
//   kestrd apclone_24G     one enrollee run for 2.4 GHz, then exit
//   kestrd apclone_5G      the same for 5 GHz
//   kestrd apclone_deamon  registrar until killed (role must be registrar)
//
// The exit status is 0 in every case; the outcome of a run shows in the
// printed lines, the system log and the configuration database.
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "daemon/kestrd_apclone.h"
#include "daemon/kestrd_cmd_process.h"
#include "daemon/kestrd_msg_process.h"
#include "daemon/kestrd_request_list.h"
#include "port/19051_port.h"
#include "port/common/report.h"

namespace {

// Facility code 25 shifted left by three, as the device's log setup expects.
constexpr int kLogFacility = 200;
constexpr useconds_t kRunPollMicros = 500000;

// Run mode, set at most once by param_parse before any thread exists.
int apclone_24g = 0;
int apclone_5g = 0;
int apclone_deamon = 0;

int show_event_usage() {
    std::puts("Usage: kestrd {cmd} ");
    std::puts("    kestrd apclone_24G");
    std::puts("    kestrd apclone_5G");
    std::puts("    kestrd apclone_deamon");
    return 0;
}

[[noreturn]] void usage_and_exit() {
    show_event_usage();
    std::exit(0);
}

void param_parse(int argc, char** argv) {
    if (argc < 2 || argc > 32)
        usage_and_exit();
    if (std::strcmp(argv[1], "help") == 0)
        usage_and_exit();
    std::printf("argv[1]:%s\n", argv[1]);
    if (std::strncmp(argv[1], "apclone_24G", 11) == 0) {
        apclone_24g = 1;
        return;
    }
    if (std::strncmp(argv[1], "apclone_5G", 10) == 0) {
        apclone_5g = 1;
        return;
    }
    if (std::strncmp(argv[1], "apclone_deamon", 14) == 0) {
        if (IEEE19051Port_GetRole() == RoleTypeRegistrar) {
            apclone_deamon = 1;
            return;
        }
        KESTR_ERR("role is not RoleTypeRegistrar\n");
        std::exit(0);
    }
    usage_and_exit();
}

}  // namespace

int main(int argc, char** argv) {
    // Line-buffered even into a pipe or a file, so every line is out before
    // a signal ends the registrar.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    openlog("kestrd", 0, kLogFacility);
    param_parse(argc, argv);

    IEEE19051_InitList();
    IEEE19051_MsgProcessStart();
    if (apclone_24g == 1) {
        char word[] = "apclone_24G";
        IEEE19051_CommandProcess(word, 11);
    } else if (apclone_5g == 1) {
        char word[] = "apclone_5G";
        IEEE19051_CommandProcess(word, 10);
    }

    while (apclone_deamon != 0 || process_completed.load() == 0)
        usleep(kRunPollMicros);

    IEEE19051_MsgProcessEnd();
    IEEE19051_UninitList();
    closelog();
    return 0;
}
