// enrollee: runs of a real enrollee, each timed from start to exit and from
// its outcome line ("exit:...") to exit, with its memory sampled.
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "bench/system_roles.h"

namespace kbench {

namespace {

struct Run {
    double total_ms = 0, tail_ms = -1;  // start to exit, outcome line to exit
    double cpu_ms = 0;                  // processor time, user and system
    std::string outcome;
    Memory memory;
};

// What an outcome line says: its text from "exit:" on, colours removed.
std::string outcome_of(const std::string& line) {
    std::string plain;
    for (size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '\033')
            i = line.find('m', i) == std::string::npos ? line.size() : line.find('m', i);
        else
            plain += line[i];
    }
    const size_t at = plain.find("exit:");
    return at == std::string::npos ? "" : plain.substr(at);
}

// One run of `command`: its memory sampled `sample_at_ms` after its start
// (or, when negative, at its outcome line), killed after `limit_s` seconds.
Run run_once(char* const* command, long sample_at_ms, long limit_s) {
    Run r;
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0)
        return r;
    fcntl(out[0], F_SETFL, O_NONBLOCK);
    const auto start = Clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], 1);
        dup2(out[1], 2);
        execv(command[0], command);
        _exit(127);
    }
    close(out[1]);
    kestr::UniqueFd output(out[0]), exited(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    if (pid < 0)
        return r;
    if (!exited.valid()) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        return r;
    }
    Clock::time_point outcome_at{};
    std::string line;
    bool sampled = sample_at_ms < 0, killed = false;
    for (;;) {
        pollfd p[2] = {{output.get(), POLLIN, 0}, {exited.get(), POLLIN, 0}};
        poll(p, 2, 20);
        // All that was written before the exit was seen is read first, so an
        // outcome line written just before the end is never missed.
        char buf[4096];
        for (ssize_t n; (n = read(output.get(), buf, sizeof buf)) > 0;) {
            for (ssize_t i = 0; i < n; ++i) {
                if (buf[i] != '\n') {
                    line += buf[i];
                } else {
                    if (r.outcome.empty() && !(r.outcome = outcome_of(line)).empty()) {
                        outcome_at = Clock::now();
                        if (sample_at_ms < 0)
                            r.memory = memory_of(pid);
                    }
                    line.clear();
                }
            }
        }
        if (p[1].revents & POLLIN)
            break;
        if (!sampled && ms_since(start) >= sample_at_ms) {
            r.memory = memory_of(pid);
            sampled = true;
        }
        if (!killed && ms_since(start) > limit_s * 1000.0) {
            kill(pid, SIGKILL);
            killed = true;
        }
    }
    r.total_ms = ms_since(start);
    rusage usage{};
    wait4(pid, nullptr, 0, &usage);
    r.cpu_ms = (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
               (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
    if (killed) {
        r.outcome = (r.outcome.empty() ? "no outcome line" : r.outcome) + ", killed after " +
                    std::to_string(limit_s) + " s";
    } else if (outcome_at != Clock::time_point{}) {
        r.tail_ms = r.total_ms - ms_since(start, outcome_at);
    }
    return r;
}

}  // namespace

int enrollee(const Args& a) {
    const long runs = a.number("--runs", 1), limit = a.number("--limit", 30);
    const long sample_at = a.number("--sample-at", -1);
    std::vector<double> totals, tails, cpu, rss, dirty;
    long completed = 0;
    std::string failure;
    for (long i = 0; i < runs && a.command.size() > 1; ++i) {
        const Run r = run_once(a.command.data(), sample_at, limit);
        std::fprintf(stderr,
                     "run %ld: %.3f s, outcome line -> exit %.1f ms, %s, processor %.0f ms, Rss "
                     "%ld KiB\n",
                     i + 1, r.total_ms / 1000, r.tail_ms, r.outcome.c_str(), r.cpu_ms,
                     r.memory.rss_kb);
        totals.push_back(r.total_ms);
        cpu.push_back(r.cpu_ms);
        if (r.tail_ms >= 0)
            tails.push_back(r.tail_ms);
        if (r.memory.rss_kb >= 0) {
            rss.push_back(static_cast<double>(r.memory.rss_kb));
            dirty.push_back(static_cast<double>(r.memory.private_dirty_kb));
        }
        if (r.outcome == "exit:processing_completed") {
            ++completed;
        } else if (failure.empty()) {
            failure = r.outcome.empty() ? "no outcome line" : r.outcome;
            if (a.named.count("--stop-on-failure"))
                break;
        }
    }
    const Spread total = spread(totals), tail = spread(tails);
    std::printf("runs %zu\ncompleted %ld\nfailure %s\n", totals.size(), completed,
                failure.empty() ? "-" : failure.c_str());
    std::printf("run_median_ms %.1f\nrun_p95_ms %.1f\ntail_median_ms %.1f\ntail_p95_ms %.1f\n",
                total.median, total.p95, tail.median, tail.p95);
    std::printf("cpu_median_ms %.1f\nrss_kb %.0f\nprivate_dirty_kb %.0f\n", spread(cpu).median,
                spread(rss).median, spread(dirty).median);
    return 0;
}

}  // namespace kbench
