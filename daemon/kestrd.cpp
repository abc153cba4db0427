#include "daemon/kestrd.h"

#include <syslog.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "daemon/kestrd_band.h"
#include "daemon/kestrd_cmd_process.h"
#include "daemon/kestrd_msg_process.h"
#include "daemon/kestrd_request_list.h"
#include "daemon/kestrd_run.h"
#include "port/19051_port.h"
#include "port/common/bytes.h"
#include "port/common/report.h"

namespace {

// Facility code 25 shifted left by three, as the device's log setup expects.
constexpr int kLogFacility = 200;
// The longest the main thread waits before it looks at the run again; the
// end of the run wakes it at once.
constexpr std::chrono::milliseconds kRunPoll{500};
constexpr int kMaxArgs = 32;
constexpr const char* kRegistrarWord = "apclone_deamon";

// Run mode, set at most once by param_parse before any thread exists.
int apclone_24g = 0;
int apclone_5g = 0;
int apclone_deamon = 0;

[[noreturn]] void usage_and_exit() {
    show_event_usage();
    std::exit(0);
}

}  // namespace

int show_event_usage() {
    std::puts("Usage: kestrd {cmd} ");
    std::puts("    kestrd apclone_24G");
    std::puts("    kestrd apclone_5G");
    std::puts("    kestrd apclone_deamon");
    return 0;
}

void param_parse(int argc, char** argv) {
    if (argc < 2 || argc > kMaxArgs)
        usage_and_exit();
    const char* word = kestr::Span<char*>(argv, static_cast<size_t>(argc))[1];
    if (std::strcmp(word, "help") == 0)
        usage_and_exit();
    std::printf("argv[1]:%s\n", word);
    if (const std::optional<kestr::Band> band = kestr::band_of_command(word)) {
        (*band == kestr::Band::g2p4() ? apclone_24g : apclone_5g) = 1;
        return;
    }
    if (std::strncmp(word, kRegistrarWord, std::strlen(kRegistrarWord)) == 0) {
        if (IEEE19051Port_GetRole() == RoleTypeRegistrar) {
            apclone_deamon = 1;
            return;
        }
        KESTR_ERR("role is not RoleTypeRegistrar\n");
        std::exit(0);
    }
    usage_and_exit();
}

int main(int argc, char** argv) {
    // Line-buffered even into a pipe or a file, so every line is out before
    // a signal ends the registrar.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    openlog("kestrd", 0, kLogFacility);
    param_parse(argc, argv);

    IEEE19051_InitList();
    IEEE19051_MsgProcessStart();
    if (apclone_24g == 1 || apclone_5g == 1) {
        // The enrollee's Search goes out from this thread; everything after
        // it happens on the receive task and the watcher.
        std::string word(apclone_24g == 1 ? kestr::Band::g2p4().command_word()
                                          : kestr::Band::g5().command_word());
        IEEE19051_CommandProcess(word.data(), static_cast<int>(word.size()));
    }

    while (apclone_deamon != 0 || kestr::run_state.process_completed.load() == 0)
        kestr::run_state.wait_for_end(kRunPoll);

    // Each stop below wakes its task's wait, so the process ends as soon as
    // the current frame and the watcher's current pass are done.

    IEEE19051_MsgProcessEnd();
    IEEE19051_UninitList();
    closelog();
    return 0;
}
