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
//   burst --to MAC --count N [--rounds R] [--watch PID]
//       N M1s back to back and at once a Search: how long the registrar
//       goes on answering, and when the Search gets its Response.
//
// Every frame is built by the daemon's own builders and WSC encoder. Figures
// go to standard output as "name value" lines, what each run did to
// standard error. The program refuses to open a socket in the machine's own
// network namespace: its frames are for emulated links only.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "port/19051_port.h"
#include "port/common/unique_fd.h"
#include "port/util.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse.h"
#include "protocol/19051_parse_wsc.h"
#include "protocol/19051_protocol.h"
#include "wsc/encrypt/encrypt.h"
#include "wsc/encrypt/wps_openssl.h"
#include "wsc/wsc.h"

namespace {

using Clock = std::chrono::steady_clock;
using Frame = std::vector<uint8_t>;
using Nonce = std::vector<uint8_t>;

double ms_since(Clock::time_point t0, Clock::time_point t = Clock::now()) {
    return std::chrono::duration<double, std::milli>(t - t0).count();
}

volatile std::sig_atomic_t g_stop = 0;

// ---- Command line: "--name value" pairs, bare flags, then "--" COMMAND...

struct Args {
    std::map<std::string, std::string> named;
    std::vector<char*> command;

    Args(int argc, char** argv) {
        for (int i = 2; i < argc; ++i) {
            if (std::strcmp(argv[i], "--") == 0) {
                while (++i < argc)
                    command.push_back(argv[i]);
                break;
            }
            const bool flag = i + 1 >= argc || std::strncmp(argv[i + 1], "--", 2) == 0;
            named[argv[i]] = flag ? "1" : argv[i + 1];
            i += flag ? 0 : 1;
        }
        command.push_back(nullptr);
    }
    std::string text(const char* name, const char* otherwise = "") const {
        const auto it = named.find(name);
        return it == named.end() ? otherwise : it->second;
    }
    long number(const char* name, long otherwise) const {
        const auto it = named.find(name);
        return it == named.end() ? otherwise : std::atol(it->second.c_str());
    }
};

// Median and the 95th percentile (nearest rank) of what was measured.
struct Spread {
    double median = -1, p95 = -1, max = -1;
};
Spread spread(std::vector<double> v) {
    Spread s;
    if (v.empty())
        return s;
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    s.median = n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
    s.p95 = v[std::max<size_t>((95 * n + 99) / 100, 1) - 1];
    s.max = v.back();
    return s;
}

// ---- The link: a packet socket on br0 of an emulated device

bool in_own_network_namespace() {
    char self[64] = {}, init[64] = {};
    return readlink("/proc/self/ns/net", self, sizeof self - 1) > 0 &&
           readlink("/proc/1/ns/net", init, sizeof init - 1) > 0 && std::strcmp(self, init) == 0;
}

class Link {
  public:
    // `receive`: also read 1905.1 frames (with a large queue), not only send.
    bool open(bool receive) {
        if (in_own_network_namespace()) {
            std::fprintf(stderr, "bench: run inside an emulated device, not on this machine\n");
            return false;
        }
        char br0[] = "br0";
        const uint16_t proto = receive ? htons(kIeee1905EtherType) : 0;
        fd_ = kestr::UniqueFd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, proto));
        const int one = 1, queue = 8 << 20;
        setsockopt(fd_.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one);
        setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &queue, sizeof queue);
        struct sockaddr_ll addr {};
        addr.sll_family = AF_PACKET;
        addr.sll_protocol = proto;
        addr.sll_ifindex = static_cast<int>(if_nametoindex(br0));
        if (!fd_.valid() || addr.sll_ifindex == 0 ||
            bind(fd_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            IEEE19051Port_GetMacByInterface(br0, &own_) != 0) {
            std::perror("bench: br0");
            return false;
        }
        return true;
    }
    const ether_addr& own() const { return own_; }

    // Sends frames[first], frames[first + 1], ... (taken round the ring) in
    // batches; how many went out.
    size_t send(const std::vector<Frame>& frames, size_t first, size_t count) {
        size_t sent = 0;
        while (sent < count) {
            const size_t n = std::min<size_t>(count - sent, kBatch);
            iovec iov[kBatch];
            mmsghdr msgs[kBatch] = {};
            for (size_t i = 0; i < n; ++i) {
                const Frame& f = frames[(first + sent + i) % frames.size()];
                iov[i] = {const_cast<uint8_t*>(f.data()), f.size()};
                msgs[i].msg_hdr.msg_iov = &iov[i];
                msgs[i].msg_hdr.msg_iovlen = 1;
            }
            const int done = sendmmsg(fd_.get(), msgs, static_cast<unsigned>(n), 0);
            if (done <= 0)
                break;
            sent += static_cast<size_t>(done);
        }
        return sent;
    }
    bool send(const Frame& f) { return send(std::vector<Frame>{f}, 0, 1) == 1; }

    // The next frame within `ms` milliseconds, in a 1514-byte buffer ready
    // for the TLV walk; its length, or 0.
    int receive(Frame* f, int ms) {
        pollfd p = {fd_.get(), POLLIN, 0};
        f->assign(kCmduMaxFrameLen, 0);
        if (poll(&p, 1, ms) <= 0)
            return 0;
        // The bytes after the frame stay zero: the TLV walk over the whole
        // buffer ends where the frame did.
        const ssize_t n = recv(fd_.get(), f->data(), f->size(), 0);
        return n < kCmduMinFrameLen ? 0 : static_cast<int>(n);
    }

  private:
    static constexpr size_t kBatch = 64;
    kestr::UniqueFd fd_;
    ether_addr own_{};
};

// ---- Frames, from the daemon's builders

const ether_addr kMulticast = {{0x01, 0x80, 0xc2, 0x00, 0x00, 0x13}};

template <typename Build>
Frame build(const ether_addr& to, const ether_addr& from, int mid, Build&& builder) {
    ieee1905Message_t packet;
    std::memset(&packet, 0, sizeof packet);
    param_t param{};
    param.da = to;
    param.sa = from;
    param.mid = mid;
    const int n = builder(&packet, param);
    Frame f(sizeof packet);
    std::memcpy(f.data(), &packet, sizeof packet);
    // Padded to the Ethernet minimum, as the daemon sends them.
    f.resize(static_cast<size_t>(std::max(n, kMinEtherFrameLen)));
    return f;
}

Frame search(const ether_addr& own, int mid) {
    ap_autoconfig_search_param_t s{};
    s.role = kIeee1905RoleRegistrar;
    s.freq_band = kIeee1905FreqBand2P4G;
    s.almac = own;
    return build(kMulticast, own, mid, [&](ieee1905Message_t* p, const param_t& param) {
        return IEEE19051_GetPacketApAutoconfigurationSearch(p, param, s);
    });
}

template <typename Record>
void put(Record* r, const void* value, size_t len) {
    std::memcpy(r->val, value, len);
    r->valid_len = static_cast<u_int16_t>(len);
    r->valid = 1;
}
template <typename Record>
void put(Record* r, const char* text) {
    put(r, text, std::strlen(text));
}
template <typename Record, typename Value>
void put_number(Record* r, Value v) {
    r->val = v;
    r->valid = 1;
}

// A WSC message as an enrollee's M1 carries it, or (kind M2) the first
// attributes of an M2, for the enrollee nonce `nonce`.
Frame wsc(const ether_addr& to, const ether_addr& own, int mid, MessageType_e kind,
          const Nonce& nonce, const uint8_t* public_key) {
    wsc_configuration_t c;
    std::memset(&c, 0, sizeof c);
    put_number(&c.version, 0x10);
    put_number(&c.message_type, static_cast<u_int8_t>(kind));
    put(&c.enrollee_nonce, nonce.data(), nonce.size());
    put(&c.public_key, public_key, kDhPublicKeyLen);
    put_number(&c.rf_bands, RFBands_2P4G);
    if (kind == MessageType_M1) {
        uint8_t uuid[16] = {0x6b, 0x65, 0x73, 0x74, 0x72, 0x64};
        std::memcpy(&uuid[10], own.ether_addr_octet, 6);
        put(&c.UUIDE, uuid, sizeof uuid);
        put(&c.mac, own.ether_addr_octet, 6);
        put_number(&c.pwd_id, DevicePasswordID_PushButton);
        put_number(&c.wifi_simple_configuration_state, 0);
        put(&c.manufacturer, "kestrel devices");
        put(&c.model_name, "PLC-1200");
        put(&c.model_number, "1200-AC");
        put(&c.serial_number, "KD0012345678");
        put(&c.device_name, "bench enrollee");
        const uint8_t device_type[8] = {0x00, 0x06, 0x00, 0x50, 0xf2, 0x04, 0x00, 0x01};
        put(&c.primary_device_type, device_type, sizeof device_type);
    } else {
        put(&c.registrar_nonce, nonce.data(), nonce.size());
    }
    return build(to, own, mid, [&](ieee1905Message_t* p, const param_t& param) {
        return IEEE19051_GetPacketApAutoconfigurationWsc(p, param, &c);
    });
}

Nonce random_nonce() {
    Nonce n(kWscNonceLen);
    linux_random(n.data(), kWscNonceLen);
    return n;
}

// The WSC message of a received frame, if it has one.
bool read_wsc(Frame& f, wsc_configuration_t* c) {
    std::memset(c, 0, sizeof *c);
    if (IEEE19051_GetType(f.data()) != IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC)
        return false;
    for (int i = 0; i < IEEE19051_GetTlvTotalNumber(f.data()); ++i) {
        u_int8_t* tlv = IEEE19051_GetTlvByNumber(f.data(), i);
        if (tlv != nullptr && tlv[0] == IEEE1905_TLV_TYPE_WPS)
            return IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv), c) == 0;
    }
    return false;
}

// ---- Memory of a process

struct Memory {
    long rss_kb = -1, private_dirty_kb = -1;
};
Memory memory_of(pid_t pid) {
    Memory m;
    std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
    for (std::string line; std::getline(in, line);) {
        std::sscanf(line.c_str(), "Rss: %ld", &m.rss_kb);
        std::sscanf(line.c_str(), "Private_Dirty: %ld", &m.private_dirty_kb);
    }
    return m;
}

// ---- enrollee: runs of a real enrollee

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

// ---- junk: a third device's multicast junk at a fixed rate

std::vector<Frame> junk_frames(const std::string& kind, const ether_addr& own) {
    std::vector<Frame> ring;
    uint8_t public_key[kDhPublicKeyLen];
    linux_random(public_key, sizeof public_key);
    for (int i = 0; i < 256; ++i) {
        if (kind == "version") {
            // A Search as an enrollee sends it, but of message version 1: the
            // receive path refuses it on read.
            ring.push_back(search(own, i));
            ring.back()[kEtherHeaderLen] = 1;
        } else if (kind == "ignored") {
            // A valid CMDU of a type no handler takes.
            ring.push_back(build(kMulticast, own, i, [&](ieee1905Message_t* p, const param_t& pr) {
                return IEEE19051_GetPacketTopologyDiscovery(p, pr, own);
            }));
        } else if (kind == "wsc") {
            // A WSC message that is no registrar's M1 and answers no
            // enrollee's M1: an M2 for a nonce nobody sent.
            ring.push_back(wsc(kMulticast, own, i, MessageType_M2, random_nonce(), public_key));
        }
    }
    return ring;
}

// Packets the kernel dropped at its per-CPU input queues, all CPUs.
long backlog_drops() {
    std::ifstream in("/proc/net/softnet_stat");
    std::string processed, dropped, rest;
    long total = 0;
    while (in >> processed >> dropped && std::getline(in, rest))
        total += std::stol(dropped, nullptr, 16);
    return total;
}

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

// ---- m1s and burst: M1s at a registrar

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

int burst(const Args& a) {
    Enrollees e;
    const auto count = static_cast<size_t>(a.number("--count", 4000));
    const long rounds = a.number("--rounds", 1), watch = a.number("--watch", 0);
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
                     "%.0f ms after the burst; Search answered after %.0f ms\n",
                     sent, ms_since(start, end), backlog_drops() - drops, m2s,
                     ms_since(end, last_m2), answer_ms);
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

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const std::string role = argc > 1 ? argv[1] : "";
    const Args args(argc, argv);
    if (role == "enrollee")
        return enrollee(args);
    if (role == "junk")
        return junk(args);
    if (role == "m1s")
        return m1s(args);
    if (role == "burst")
        return burst(args);
    std::fprintf(stderr,
                 "usage: kestr_bench_system enrollee [--runs N] [--stop-on-failure] "
                 "[--sample-at MS] [--limit S] -- KESTRD WORD\n"
                 "       kestr_bench_system junk --kind version|ignored|wsc --rate PER_SECOND\n"
                 "       kestr_bench_system m1s --to MAC --count N [--rounds R]\n"
                 "       kestr_bench_system burst --to MAC --count N [--rounds R] [--watch PID]\n");
    return 2;
}
