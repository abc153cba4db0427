// What the third device puts on the link: junk at a fixed rate (junk), many
// enrollees' M1s at once (m1s), and a burst of M1s with a Search right after
// it (burst).
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "bench/system_frames.h"
#include "bench/system_roles.h"
#include "port/util.h"
#include "protocol/19051_msg.h"
#include "wsc/encrypt/encrypt.h"

namespace kbench {

int junk(const Args& a) {
    const double rate = static_cast<double>(a.number("--rate", 0));
    Link link;
    if (rate <= 0 || !link.open(false))
        return 2;
    const std::vector<Frame> ring = junk_frames(a.text("--kind"), link.own());
    if (ring.empty())
        return 2;
    struct sigaction stop {};
    stop.sa_handler = [](int) { g_stop = 1; };
    sigaction(SIGTERM, &stop, nullptr);
    sigaction(SIGINT, &stop, nullptr);
    // Wake-ups on time: the pace is kept in 1 ms steps.
    prctl(PR_SET_TIMERSLACK, 1UL);

    // A step that falls behind catches up by at most 5 ms of frames; what is
    // beyond is skipped, so the rate sent is the rate reported.
    const size_t most = std::max<size_t>(64, static_cast<size_t>(rate / 200));
    size_t sent = 0, due_done = 0;
    const long drops_before = backlog_drops();
    std::printf("junk: sending %s frames at %.0f/s\n", a.text("--kind").c_str(), rate);
    std::fflush(stdout);
    const auto start = Clock::now();
    timespec tick;
    clock_gettime(CLOCK_MONOTONIC, &tick);
    while (!g_stop) {
        const auto due = static_cast<size_t>(rate * ms_since(start) / 1000);
        const size_t n = std::min(due - due_done, most);
        sent += link.send(ring, sent, n);
        due_done = due;
        tick.tv_nsec += 1000000;
        if (tick.tv_nsec >= 1000000000) {
            tick.tv_nsec -= 1000000000;
            ++tick.tv_sec;
        }
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &tick, nullptr);
    }
    const double seconds = ms_since(start) / 1000;
    std::printf("sent %zu\nseconds %.2f\nrate %.0f\nbacklog_drops %ld\n", sent, seconds,
                static_cast<double>(sent) / seconds, backlog_drops() - drops_before);
    return 0;
}

namespace {

// Enrollees as a registrar sees them: M1s from the link's own address, one
// key pair for all.
struct Enrollees {
    Link link;
    ether_addr to{};
    uint8_t public_key[kDhPublicKeyLen] = {};
    int mid = 0;

    bool open(const Args& a) {
        // One key pair serves every M1: the registrar's work per M1 is the
        // same, and it is made before the clock runs.
        DH* dh = nullptr;
        const bool ok = generatePublicKey(public_key, sizeof public_key, &dh) == 0;
        reg_proto_delete_dhkeypair(&dh);
        return ok && link.open(true) && mac_str_to_etheraddr(a.text("--to").c_str(), &to) == 0;
    }
    std::vector<Frame> m1s(size_t count, std::map<Nonce, size_t>* nonces) {
        std::vector<Frame> frames;
        for (size_t i = 0; i < count; ++i) {
            const Nonce n = random_nonce();
            (*nonces)[n] = i;
            frames.push_back(wsc(to, link.own(), ++mid & 0xFFFF, MessageType_M1, n, public_key));
        }
        return frames;
    }
    // An M2 for one of `nonces`: its index, else -1.
    static long answered(Frame& f, const std::map<Nonce, size_t>& nonces) {
        wsc_configuration_t c;
        if (!read_wsc(f, &c) || c.message_type.val != MessageType_M2)
            return -1;
        const auto it =
            nonces.find(Nonce(std::begin(c.enrollee_nonce.val), std::end(c.enrollee_nonce.val)));
        return it == nonces.end() ? -1 : static_cast<long>(it->second);
    }
};

// Bytes waiting in the 1905.1 receive queues of process `pid`.
long queued_bytes(long pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/net/packet");
    std::string line;
    long total = 0;
    std::getline(in, line);  // sk RefCnt Type Proto Iface R Rmem User Inode
    while (std::getline(in, line)) {
        char proto[16] = {};
        long rmem = 0;
        if (std::sscanf(line.c_str(), "%*s %*s %*s %15s %*s %*s %ld", proto, &rmem) == 2 &&
            std::strcmp(proto, "893a") == 0)
            total += rmem;
    }
    return total;
}

}  // namespace

int m1s(const Args& a) {
    Enrollees e;
    const auto count = static_cast<size_t>(a.number("--count", 1));
    const long rounds = a.number("--rounds", 1);
    if (!e.open(a))
        return 2;
    std::vector<double> latencies;
    for (long round = 0; round < rounds; ++round) {
        std::map<Nonce, size_t> nonces;
        const std::vector<Frame> frames = e.m1s(count, &nonces);
        std::vector<Clock::time_point> sent(count);
        for (size_t i = 0; i < count; ++i) {
            sent[i] = Clock::now();
            e.link.send(frames[i]);
        }
        // Until every M1 is answered, or nothing came for 5 s.
        std::vector<bool> seen(count);
        size_t answered = 0;
        Frame f;
        for (auto last = Clock::now(); answered < count && ms_since(last) < 5000;) {
            if (e.link.receive(&f, 100) == 0)
                continue;
            const long i = Enrollees::answered(f, nonces);
            if (i < 0 || seen[static_cast<size_t>(i)])
                continue;
            last = Clock::now();
            seen[static_cast<size_t>(i)] = true;
            ++answered;
            latencies.push_back(ms_since(sent[static_cast<size_t>(i)], last));
        }
        std::fprintf(stderr, "%zu M1s at once: %zu answered\n", count, answered);
        usleep(300000);  // the registrar has settled before the next round
    }
    const Spread s = spread(latencies);
    std::printf("sent %zu\nanswered %zu\nmedian_ms %.1f\np95_ms %.1f\nmax_ms %.1f\n",
                count * static_cast<size_t>(rounds), latencies.size(), s.median, s.p95, s.max);
    return 0;
}

int burst(const Args& a) {
    Enrollees e;
    const auto count = static_cast<size_t>(a.number("--count", 4000));
    const long rounds = a.number("--rounds", 1), watch = a.number("--watch", 0);
    // A Search in the very millisecond the burst ends finds the registrar's
    // queue full, however long it is, and is dropped: a new enrollee comes
    // a little later, when the queue has begun to drain.
    const long search_after_ms = a.number("--search-after", 200);
    if (!e.open(a))
        return 2;
    std::vector<double> busy, answered_m2s, answers;
    long unanswered = 0, peak = 0;
    for (long round = 0; round < rounds; ++round) {
        std::map<Nonce, size_t> nonces;
        const std::vector<Frame> frames = e.m1s(count, &nonces);
        const int mid = ++e.mid & 0xFFFF;
        const Frame probe = search(e.link.own(), mid);
        const long drops = backlog_drops();
        const auto start = Clock::now();
        const size_t sent = e.link.send(frames, 0, frames.size());
        const auto end = Clock::now();
        usleep(static_cast<useconds_t>(search_after_ms * 1000));
        e.link.send(probe);
        const auto searched = Clock::now();

        // Until nothing came for 2 s; the registrar's last M2 ends its work.
        Frame f;
        auto last_m2 = end, last = end;
        double answer_ms = -1;
        size_t m2s = 0;
        while (ms_since(last) < 2000 && ms_since(end) < 60000) {
            if (watch > 0)
                peak = std::max(peak, queued_bytes(watch));
            if (e.link.receive(&f, 10) == 0)
                continue;
            if (Enrollees::answered(f, nonces) >= 0) {
                last = last_m2 = Clock::now();
                ++m2s;
            } else if (answer_ms < 0 &&
                       IEEE19051_GetType(f.data()) ==
                           IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_RESPONSE &&
                       IEEE19051_GetMid(f.data()) == mid) {
                last = Clock::now();
                answer_ms = ms_since(searched, last);
            }
        }
        std::fprintf(stderr,
                     "burst of %zu M1s sent in %.0f ms (%ld dropped on the way): %zu M2s, the last "
                     "%.0f ms after the burst; Search %ld ms after it answered after %.0f ms\n",
                     sent, ms_since(start, end), backlog_drops() - drops, m2s,
                     ms_since(end, last_m2), search_after_ms, answer_ms);
        busy.push_back(ms_since(end, last_m2));
        answered_m2s.push_back(static_cast<double>(m2s));
        if (answer_ms < 0)
            ++unanswered;
        else
            answers.push_back(answer_ms);
    }
    std::printf("rounds %ld\nbusy_ms %.0f\nbusy_max_ms %.0f\nm2s %.0f\n", rounds,
                spread(busy).median, spread(busy).max, spread(answered_m2s).median);
    std::printf("search_unanswered %ld\nsearch_max_ms %.0f\nqueue_peak_kb %ld\n", unanswered,
                spread(answers).max, peak / 1024);
    return 0;
}

}  // namespace kbench
