// Frames and clocks of the system benchmark (`make bench-system`). Its
// driver, bench/system.sh, runs this program inside emulated devices
// (tools/emu/emu.sh), in one of four roles:
//
//   enrollee [--runs N] [--stop-on-failure] [--sample-at MS] [--limit S] -- KESTRD WORD
//       runs an enrollee N times, one after the other: each run timed from
//       start to exit and from its outcome line ("exit:...") to exit, and
//       its memory (smaps_rollup) sampled MS after its start, or else at its
//       outcome line.
//   junk --kind version|ignored|wsc --rate PER_SECOND
//       multicasts junk 1905.1 frames on br0 at a fixed rate until SIGTERM.
//   m1s --to MAC --count N [--rounds R]
//       N enrollees at once: N M1s in one go, each M2 timed against its M1.
//   burst --to MAC --count N [--rounds R] [--watch PID] [--search-after MS]
//       N M1s back to back and a Search MS (200) after them: how long the
//       registrar goes on answering, and when the Search gets its Response.
//
// Every frame is built by the daemon's own builders and WSC encoder
// (system_frames). Figures go to standard output as "name value" lines,
// what each run did to standard error. The program refuses to open a socket
// in the machine's own network namespace: its frames are for emulated links
// only.
#include <cstdio>
#include <string>

#include "bench/system_roles.h"

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const std::string role = argc > 1 ? argv[1] : "";
    const kbench::Args args(argc, argv);
    if (role == "enrollee")
        return kbench::enrollee(args);
    if (role == "junk")
        return kbench::junk(args);
    if (role == "m1s")
        return kbench::m1s(args);
    if (role == "burst")
        return kbench::burst(args);
    std::fprintf(stderr,
                 "usage: kestr_bench_system enrollee [--runs N] [--stop-on-failure] "
                 "[--sample-at MS] [--limit S] -- KESTRD WORD\n"
                 "       kestr_bench_system junk --kind version|ignored|wsc --rate PER_SECOND\n"
                 "       kestr_bench_system m1s --to MAC --count N [--rounds R]\n"
                 "       kestr_bench_system burst --to MAC --count N [--rounds R] [--watch PID] "
                 "[--search-after MS]\n");
    return 2;
}
