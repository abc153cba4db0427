// A hostile third device for the end-to-end tests. It floods the shared link
// with a bounded number of random and malformed 1905.1 frames, at a bounded
// rate, and answers what it overhears with forgeries:
//
//   kestr_test_flood --frames N --rate PER_SECOND --target MAC [--target MAC]...
//                    [--seed S]
//
// The mix: random bytes; CMDUs of any type whose TLVs run past the frame;
// AP-autoconfiguration TLVs cut short; WSC messages whose attribute lengths
// lie; Responses and M2s under random identifiers and nonces; Searches,
// Renews and types nobody handles. Frames go to the 1905.1 multicast address,
// to each target, to broadcast and to unknown stations, from this device's
// own address or from a few made-up ones (never a target's: that would
// teach the link's bridge a wrong port instead of testing kestrd).
//
// Every Search it sees is answered under the Search's own identifier with
// Responses that are wrong in one way each, and one that is right, so the
// enrollee sends this device an M1 too. Every such M1 is answered with M2s
// that carry its enrollee nonce but fail a different check each: a spoiled
// Authenticator, a spoiled ciphertext, sealed settings cut short, a lying
// attribute length, a missing registrar nonce. None of them may ever be
// saved. The device's own database should hold settings that differ from
// the real registrar's, so a forgery that got through would show.
//
// At the end it prints one line: "flood: sent N frames in T s (...)".
#include <arpa/inet.h>
#include <getopt.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "daemon/kestrd_apclone.h"
#include "port/19051_port.h"
#include "port/common/bytes.h"
#include "port/common/unique_fd.h"
#include "port/util.h"
#include "protocol/19051_frame.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse.h"
#include "protocol/19051_parse_wsc.h"
#include "protocol/19051_protocol.h"

namespace {

using Clock = std::chrono::steady_clock;
using Mac = std::array<uint8_t, 6>;
using Frame = std::vector<uint8_t>;

constexpr Mac kMulticast = {0x01, 0x80, 0xc2, 0x00, 0x00, 0x13};
constexpr Mac kBroadcast = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
constexpr int kForgedSources = 16;

// The raw side of br0: sends whole frames, receives what others send.
class Link {
  public:
    bool open(const char* ifname) {
        fd_ = kestr::UniqueFd(
            socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(kIeee1905EtherType)));
        if (!fd_.valid())
            return false;
        const int one = 1;
        // This device's own frames are not news to it.
        setsockopt(fd_.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one);
        struct sockaddr_ll addr {};
        addr.sll_family = AF_PACKET;
        addr.sll_protocol = htons(kIeee1905EtherType);
        addr.sll_ifindex = static_cast<int>(if_nametoindex(ifname));
        return addr.sll_ifindex != 0 &&
               bind(fd_.get(), reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0;
    }

    // A full transmit queue is waited out: the flood is bounded by its rate,
    // not by what the kernel drops.
    bool send(const Frame& f) {
        for (int attempt = 0; attempt < 1000; ++attempt) {
            if (::send(fd_.get(), f.data(), f.size(), 0) == static_cast<ssize_t>(f.size()))
                return true;
            if (errno != ENOBUFS && errno != EAGAIN && errno != EINTR)
                return false;
            usleep(200);
        }
        return false;
    }

    // The next received frame, waiting at most `ms` milliseconds.
    bool receive(Frame* f, int ms) {
        struct pollfd p = {fd_.get(), POLLIN, 0};
        if (poll(&p, 1, ms) <= 0)
            return false;
        f->resize(kCmduMaxFrameLen);
        const ssize_t n = recv(fd_.get(), f->data(), f->size(), 0);
        if (n < kCmduMinFrameLen)
            return false;
        f->resize(static_cast<size_t>(n));
        return true;
    }

  private:
    kestr::UniqueFd fd_;
};

enum Kind {
    kRandomBytes,
    kTlvSoup,
    kCutTlv,
    kLyingWsc,
    kForgedResponse,
    kForgedM2,
    kSearch,
    kOtherType,
    kKinds
};
constexpr const char* kKindNames[kKinds] = {"random",   "tlv-soup", "cut-tlv", "lying-wsc",
                                            "response", "m2",       "search",  "other-type"};
// Out of 1000 frames. Searches and M1-typed WSC messages cost the registrar
// an answer each, and every answer costs it a packet socket opened and
// closed (the close waits for the kernel's grace period, some 10 ms), an M1
// a key agreement on top: they stay rare, or the registrar would do nothing
// else.
constexpr int kWeights[kKinds] = {120, 200, 120, 200, 120, 150, 10, 80};

class Flood {
  public:
    Flood(uint64_t seed, std::vector<Mac> targets, Mac own)
        : rng_(seed), targets_(std::move(targets)), own_(own) {}

    Frame next(Kind* kind) {
        int pick = static_cast<int>(uniform(0, 999));
        int k = 0;
        while (pick >= kWeights[k])
            pick -= kWeights[k++];
        *kind = static_cast<Kind>(k);
        switch (*kind) {
            case kRandomBytes:
                return random_bytes();
            case kTlvSoup:
                return tlv_soup();
            case kCutTlv:
                return cut_tlv();
            case kLyingWsc:
                return lying_wsc();
            case kForgedResponse:
                return response(static_cast<uint16_t>(uniform(0, 0xFFFF)));
            case kForgedM2:
                return forged_m2();
            case kSearch:
                return search();
            default:
                return other_type();
        }
    }

    uint64_t uniform(uint64_t lo, uint64_t hi) {
        return std::uniform_int_distribution<uint64_t>(lo, hi)(rng_);
    }
    void fill(uint8_t* p, size_t n) {
        for (size_t i = 0; i < n; ++i)
            p[i] = static_cast<uint8_t>(rng_());
    }
    // `n` random bytes, or as many as still fit.
    void noise(kestr::ByteWriter& w, size_t n) {
        uint8_t bytes[kCmduMaxFrameLen];
        n = std::min(n, w.room());
        fill(bytes, n);
        w.bytes(bytes, n);
    }

    Mac destination() {
        const uint64_t r = uniform(0, 99);
        if (r < 40)
            return kMulticast;
        if (r < 90)
            return targets_[uniform(0, targets_.size() - 1)];
        if (r < 95)
            return kBroadcast;
        Mac m;  // a station nobody has: the link floods it and every bridge drops it
        fill(m.data(), m.size());
        m[0] = 0x06;
        return m;
    }
    Mac source() {
        if (uniform(0, 4) != 0)
            return own_;
        return Mac{0x02, 0x00, 0x00,
                   0x00, 0xee, static_cast<uint8_t>(uniform(0, kForgedSources - 1))};
    }

    // Ethernet and CMDU headers; the content is up to the caller.
    kestr::ByteWriter header(Frame* f, uint16_t type, uint16_t mid, const Mac& to,
                             const Mac& from) {
        f->assign(kCmduMaxFrameLen, 0);
        kestr::ByteWriter w(f->data(), f->size());
        w.bytes(to.data(), 6).bytes(from.data(), 6).u16(kIeee1905EtherType);
        w.u8(0).u8(0).u16(type).u16(mid).u8(0).u8(0x80);
        return w;
    }
    static void finish(Frame* f, const kestr::ByteWriter& w) { f->resize(w.size()); }

    // Addresses and EtherType; everything after is noise, the version byte
    // included, and the frame may end anywhere, even before the CMDU header.
    Frame random_bytes() {
        Frame f(kCmduMaxFrameLen);
        kestr::ByteWriter w(f.data(), f.size());
        const Mac to = destination(), from = source();
        w.bytes(to.data(), 6).bytes(from.data(), 6).u16(kIeee1905EtherType);
        noise(w, uniform(0, kCmduMaxFrameLen - kEtherHeaderLen));
        finish(&f, w);
        return f;
    }

    // Mostly the types the daemon handles, Searches among them rarely.
    uint16_t some_type() {
        const uint64_t r = uniform(0, 99);
        if (r < 2)
            return IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_SEARCH;
        if (r < 80)
            return static_cast<uint16_t>(uniform(8, 10));
        return static_cast<uint16_t>(uniform(0, 0xFFFF));
    }

    // TLVs of any type and length; lengths may run past the frame, and the
    // frame may end anywhere, also inside a TLV header.
    Frame tlv_soup() {
        Frame f;
        kestr::ByteWriter w = header(&f, some_type(), static_cast<uint16_t>(uniform(0, 0xFFFF)),
                                     destination(), source());
        const int tlvs = static_cast<int>(uniform(0, 12));
        for (int i = 0; i < tlvs && w.room() > 3; ++i) {
            const uint16_t len =
                static_cast<uint16_t>(uniform(0, 9) == 0 ? uniform(0, 0xFFFF) : uniform(0, 120));
            w.u8(static_cast<uint8_t>(uniform(0, 24))).u16(len);
            noise(w, len);
        }
        if (uniform(0, 1) == 0)
            w.zeros(3);
        finish(&f, w);
        f.resize(uniform(std::min<size_t>(f.size(), kCmduMinFrameLen), f.size()));
        return f;
    }

    // The TLVs the daemon reads, each shorter than its value needs or longer
    // than what follows.
    Frame cut_tlv() {
        static constexpr uint8_t kTypes[] = {1, 13, 14, 15, 16, 17};
        Frame f;
        kestr::ByteWriter w = header(&f, some_type(), static_cast<uint16_t>(uniform(0, 0xFFFF)),
                                     destination(), source());
        const int tlvs = static_cast<int>(uniform(1, 4));
        for (int i = 0; i < tlvs; ++i) {
            const uint8_t type = kTypes[uniform(0, std::size(kTypes) - 1)];
            const uint16_t len = static_cast<uint16_t>(uniform(0, 2) == 0 ? 0 : uniform(0, 1600));
            w.u8(type).u16(len);
            noise(w, uniform(0, len));
        }
        finish(&f, w);
        return f;
    }

    // One WSC attribute, whose length may be any of: right, zero, one short,
    // longer than its record, or longer than everything after it.
    void attribute(kestr::ByteWriter& w, uint16_t id, size_t right) {
        size_t len = right;
        switch (uniform(0, 7)) {
            case 0:
                len = 0;
                break;
            case 1:
                len = right > 0 ? right - 1 : 1;
                break;
            case 2:
                len = right + uniform(1, 1200);
                break;
            default:
                break;
        }
        w.u16(id).u16(static_cast<uint16_t>(len));
        noise(w, len);
    }

    // A WSC message whose attributes lie about their lengths, inside a WSC
    // TLV that may lie about its own. Mostly "M2s" for the enrollee; now and
    // then an "M1", which the registrar answers.
    Frame lying_wsc() {
        static constexpr struct {
            uint16_t id;
            size_t len;
        } kAttrs[] = {
            {WSC_ID_VERSION, 1},        {WSC_ID_ENROLLEE_NONCE, 16}, {WSC_ID_REGISTRAR_NONCE, 16},
            {WSC_ID_PUBLIC_KEY, 192},   {WSC_ID_MAC_ADDR, 6},        {WSC_ID_RF_BANDS, 1},
            {WSC_ID_ENCR_SETTINGS, 80}, {WSC_ID_AUTHENTICATOR, 8},   {WSC_ID_MANUFACTURER, 5},
            {WSC_ID_VENDOR_EXT, 7},     {WSC_ID_ASSOC_STATE, 2},     {WSC_ID_UUID_E, 16}};
        Frame f;
        kestr::ByteWriter w =
            header(&f, 9, static_cast<uint16_t>(uniform(0, 0xFFFF)), destination(), source());
        w.u8(IEEE1905_TLV_TYPE_WPS);
        const size_t at = w.begin_u16_length();
        const uint64_t r = uniform(0, 999);
        const uint8_t message = r < 2 ? MessageType_M1 : (r < 900 ? MessageType_M2 : 0);
        if (message != 0)
            w.u16(WSC_ID_MSG_TYPE).u16(1).u8(message);
        const int n = static_cast<int>(uniform(1, 10));
        for (int i = 0; i < n && w.room() > 8; ++i) {
            const auto& a = kAttrs[uniform(0, std::size(kAttrs) - 1)];
            attribute(w, a.id, a.len);
        }
        w.end_u16_length(at);
        if (uniform(0, 3) == 0)  // the TLV itself claims more than the frame has
            kestr::store_be16(f.data() + at, static_cast<uint16_t>(uniform(0, 0xFFFF)));
        finish(&f, w);
        return f;
    }

    // A Response, right or wrong in one way, under `mid`.
    Frame response(uint16_t mid, int variant = -1, int band = -1, const Mac* to = nullptr) {
        if (variant < 0)
            variant = static_cast<int>(uniform(0, 6));
        if (band < 0)
            band = static_cast<int>(uniform(0, 2));
        Frame f;
        kestr::ByteWriter w = header(&f, 8, mid, to != nullptr ? *to : destination(),
                                     to != nullptr ? own_ : source());
        const uint8_t b = static_cast<uint8_t>(band);
        switch (variant) {
            case 0:
                w.u8(15).u16(1).u8(0).u8(16).u16(1).u8(b ^ 1);
                break;  // other band
            case 1:
                w.u8(15).u16(1).u8(1).u8(16).u16(1).u8(b);
                break;  // enrollee role
            case 2:
                w.u8(16).u16(1).u8(b);
                break;  // no role
            case 3:
                w.u8(15).u16(1).u8(0);
                break;  // no band
            case 4:
                w.u8(15).u16(0).u8(16).u16(0);
                break;  // empty values
            case 5:
                w.u8(15).u16(1).u8(0).u8(16).u16(900).u8(b);
                break;  // band past the end
            default:
                w.u8(15).u16(1).u8(0).u8(16).u16(1).u8(b);
                break;  // right
        }
        w.zeros(3);
        finish(&f, w);
        return f;
    }

    // An M2 under a random nonce: nobody's M1 asked for it.
    Frame forged_m2() {
        Frame f;
        kestr::ByteWriter w =
            header(&f, 9, static_cast<uint16_t>(uniform(0, 0xFFFF)), destination(), source());
        uint8_t random[256];
        fill(random, sizeof random);
        w.u8(IEEE1905_TLV_TYPE_WPS);
        const size_t at = w.begin_u16_length();
        w.u16(WSC_ID_VERSION).u16(1).u8(0x10);
        w.u16(WSC_ID_MSG_TYPE).u16(1).u8(MessageType_M2);
        w.u16(WSC_ID_ENROLLEE_NONCE).u16(16).bytes(random, 16);
        w.u16(WSC_ID_REGISTRAR_NONCE).u16(16).bytes(random + 16, 16);
        w.u16(WSC_ID_PUBLIC_KEY).u16(192).bytes(random + 32, 192);
        w.u16(WSC_ID_RF_BANDS).u16(1).u8(static_cast<uint8_t>(uniform(0, 3)));
        const uint16_t sealed = static_cast<uint16_t>(uniform(0, 200));
        w.u16(WSC_ID_ENCR_SETTINGS).u16(sealed);
        for (uint16_t i = 0; i < sealed; ++i)
            w.u8(static_cast<uint8_t>(rng_()));
        w.u16(WSC_ID_AUTHENTICATOR).u16(8).bytes(random + 224, 8);
        w.end_u16_length(at);
        w.zeros(3);
        finish(&f, w);
        return f;
    }

    Frame search() {
        Frame f;
        kestr::ByteWriter w =
            header(&f, 7, static_cast<uint16_t>(uniform(0, 0xFFFF)), kMulticast, source());
        w.u8(1).u16(6).bytes(own_.data(), 6);
        w.u8(13).u16(1).u8(static_cast<uint8_t>(uniform(0, 2)));
        w.u8(14).u16(1).u8(static_cast<uint8_t>(uniform(0, 7)));
        w.zeros(3);
        finish(&f, w);
        return f;
    }

    Frame other_type() {
        static constexpr uint16_t kTypes[] = {0, 1, 2, 3, 4, 5, 6, 10, 11, 12, 13, 0x8000, 0xFFFF};
        Frame f;
        kestr::ByteWriter w =
            header(&f, kTypes[uniform(0, std::size(kTypes) - 1)],
                   static_cast<uint16_t>(uniform(0, 0xFFFF)), destination(), source());
        noise(w, uniform(0, 64));
        w.zeros(3);
        finish(&f, w);
        return f;
    }

  private:
    std::mt19937_64 rng_;
    std::vector<Mac> targets_;
    Mac own_;
};

// ---- Answers to what the flood overhears ----

struct Reactions {
    std::set<std::pair<Mac, uint16_t>> searches;  // answered once each
    std::set<std::vector<uint8_t>> m1s;           // by enrollee nonce
    int responses = 0;
    int m2s = 0;
};

Mac source_of(const Frame& f) {
    Mac m;
    std::memcpy(m.data(), f.data() + 6, 6);
    return m;
}

// The band a Search asks for (0 when it names none).
int searched_band(Frame& f) {
    f.resize(kCmduMaxFrameLen, 0);  // the TLV walk reads the whole content area
    int band = 0;
    const int total = IEEE19051_GetTlvTotalNumber(f.data());
    for (int i = 0; i < total; ++i) {
        const u_int8_t* tlv = IEEE19051_GetTlvByNumber(f.data(), i);
        if (tlv != nullptr && tlv[0] == IEEE1905_TLV_TYPE_FREQ_BAND &&
            kestr::load_be16(tlv + 1) >= 1)
            band = tlv[3];
    }
    return band;
}

void answer_search(Link& link, Flood& flood, Reactions& r, Frame f) {
    const Mac from = source_of(f);
    const uint16_t mid = static_cast<uint16_t>(IEEE19051_GetMid(f.data()));
    if (!r.searches.insert({from, mid}).second)
        return;
    const int band = searched_band(f);
    for (int variant = 0; variant <= 6; ++variant) {
        if (link.send(flood.response(mid, variant, band, &from)))
            ++r.responses;
    }
}

// The M1's WSC record and its attribute bytes; false when `f` holds no M1.
bool read_m1(Frame& f, wsc_configuration_t* m1, std::vector<uint8_t>* bytes) {
    f.resize(kCmduMaxFrameLen, 0);
    std::memset(m1, 0, sizeof *m1);
    const int total = IEEE19051_GetTlvTotalNumber(f.data());
    for (int i = 0; i < total; ++i) {
        u_int8_t* tlv = IEEE19051_GetTlvByNumber(f.data(), i);
        if (tlv == nullptr || tlv[0] != IEEE1905_TLV_TYPE_WPS)
            continue;
        IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv), m1);
        bytes->assign(tlv + kTlvHeaderLen, tlv + kTlvHeaderLen + kestr::load_be16(tlv + 1));
    }
    return m1->message_type.valid == 1 && m1->message_type.val == MessageType_M1 &&
           m1->enrollee_nonce.valid == 1;
}

// Where the WSC attribute `id` of a framed WSC message starts, or 0.
size_t find_attribute(const Frame& f, uint16_t id) {
    constexpr size_t kValueAt = kEtherHeaderLen + kCmduHeaderLen + kTlvHeaderLen;
    kestr::wsc::AttributeWalk walk(f.data() + kValueAt, f.size() - kValueAt);
    kestr::wsc::Attribute a;
    while (walk.next(&a)) {
        if (a.type == id)
            return static_cast<size_t>(a.start - f.data());
    }
    return 0;
}

// M2s that carry the M1's nonce and come from this device, so the enrollee
// hands every one of them to its M1's handler, and each fails one check.
void answer_m1(Link& link, Reactions& r, Frame f, const Mac& own) {
    wsc_configuration_t m1;
    std::vector<uint8_t> m1bytes;
    if (!read_m1(f, &m1, &m1bytes))
        return;
    const std::vector<uint8_t> nonce(m1.enrollee_nonce.val, m1.enrollee_nonce.val + 16);
    if (!r.m1s.insert(nonce).second)
        return;

    wsc_configuration_t m2;
    std::memset(&m2, 0, sizeof m2);
    getWscConfigurationM2(&m2, m1, m1.rf_bands.val == RFBands_5G ? 1 : 0, m1bytes.data(),
                          static_cast<int>(m1bytes.size()));
    param_t param{};
    std::memcpy(param.da.ether_addr_octet, f.data() + 6, 6);
    std::memcpy(param.sa.ether_addr_octet, own.data(), 6);
    ieee1905Message_t packet;
    std::memset(&packet, 0, sizeof packet);
    const int len = IEEE19051_GetPacketApAutoconfigurationWsc(&packet, param, &m2);
    if (len <= 0)
        return;
    const Frame good(reinterpret_cast<uint8_t*>(&packet),
                     reinterpret_cast<uint8_t*>(&packet) + len);

    auto spoil = [&](auto change) {
        Frame copy = good;
        change(copy);
        if (link.send(copy))
            ++r.m2s;
    };
    const size_t auth = find_attribute(good, WSC_ID_AUTHENTICATOR);
    const size_t sealed = find_attribute(good, WSC_ID_ENCR_SETTINGS);
    const size_t rnonce = find_attribute(good, WSC_ID_REGISTRAR_NONCE);
    const size_t key = find_attribute(good, WSC_ID_PUBLIC_KEY);
    if (auth != 0)
        spoil([&](Frame& c) { c[auth + 4] ^= 0x01; });
    if (sealed != 0)
        spoil([&](Frame& c) { c[sealed + 4 + 20] ^= 0x80; });
    if (sealed != 0)
        spoil([&](Frame& c) { kestr::store_be16(c.data() + sealed + 2, 17); });
    if (sealed != 0)
        spoil([&](Frame& c) { kestr::store_be16(c.data() + sealed + 2, 0xFFF0); });
    if (rnonce != 0)
        spoil([&](Frame& c) { kestr::store_be16(c.data() + rnonce, 0x7777); });
    if (key != 0)
        spoil([&](Frame& c) { std::fill(c.begin() + key + 4, c.begin() + key + 196, 0); });
}

struct Options {
    long frames = 0;
    long rate = 1000;
    uint64_t seed = 1;
    std::vector<Mac> targets;
};

bool parse(int argc, char** argv, Options* o) {
    static const struct option longs[] = {
        {"frames", required_argument, nullptr, 'n'},
        {"rate", required_argument, nullptr, 'r'},
        {"seed", required_argument, nullptr, 's'},
        {"target", required_argument, nullptr, 't'},
        {nullptr, 0, nullptr, 0},
    };
    int c;
    while ((c = getopt_long(argc, argv, "", longs, nullptr)) != -1) {
        switch (c) {
            case 'n':
                o->frames = std::atol(optarg);
                break;
            case 'r':
                o->rate = std::atol(optarg);
                break;
            case 's':
                o->seed = std::strtoull(optarg, nullptr, 10);
                break;
            case 't': {
                struct ether_addr a;
                if (mac_str_to_etheraddr(optarg, &a) != 0)
                    return false;
                Mac m;
                std::memcpy(m.data(), a.ether_addr_octet, 6);
                o->targets.push_back(m);
                break;
            }
            default:
                return false;
        }
    }
    return o->frames > 0 && o->rate > 0 && !o->targets.empty();
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Options o;
    if (!parse(argc, argv, &o)) {
        std::fprintf(stderr,
                     "usage: kestr_test_flood --frames N --rate PER_SECOND --target MAC... "
                     "[--seed S]\n");
        return 2;
    }
    char br0[] = "br0";
    struct ether_addr own_addr;
    if (IEEE19051Port_GetMacByInterface(br0, &own_addr) != 0)
        return 1;
    Mac own;
    std::memcpy(own.data(), own_addr.ether_addr_octet, 6);
    Link link;
    if (!link.open(br0)) {
        std::perror("flood: br0");
        return 1;
    }

    std::printf("flood: listening on br0, seed %llu\n", static_cast<unsigned long long>(o.seed));
    Flood flood(o.seed, o.targets, own);
    Reactions reactions;
    long sent[kKinds] = {};
    long total = 0, failed = 0;
    const auto start = Clock::now();
    Frame in;
    while (total < o.frames) {
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        const long due =
            std::min(o.frames, static_cast<long>(elapsed * static_cast<double>(o.rate)));
        while (total < due) {
            Kind kind;
            if (link.send(flood.next(&kind))) {
                ++sent[kind];
            } else {
                ++failed;
            }
            ++total;
        }
        while (link.receive(&in, total < o.frames ? 1 : 0)) {
            const int type = IEEE19051_GetType(in.data());
            if (type == IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_SEARCH) {
                answer_search(link, flood, reactions, in);
            } else if (type == IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC &&
                       std::memcmp(in.data(), own.data(), 6) == 0) {
                answer_m1(link, reactions, in, own);
            }
        }
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf("flood: sent %ld frames in %.1f s (", total - failed, seconds);
    for (int k = 0; k < kKinds; ++k)
        std::printf("%s%s %ld", k ? ", " : "", kKindNames[k], sent[k]);
    std::printf("); %ld not sent; %d forged Responses to %zu Searches, %d forged M2s to %zu M1s\n",
                failed, reactions.responses, reactions.searches.size(), reactions.m2s,
                reactions.m1s.size());
    return failed == 0 ? 0 : 1;
}
