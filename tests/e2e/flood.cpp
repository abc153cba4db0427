// A hostile third device for the end-to-end tests. It floods the shared link
// with a bounded number of random and malformed 1905.1 frames, at a bounded
// rate, and answers what it overhears with forgeries:
//
//   kestr_test_flood --frames N --rate PER_SECOND --target MAC [--target MAC]...
//                    [--seed S]
//
// The mix: random bytes; CMDUs of any type whose TLVs (those the daemon
// reads among them) are cut short or run past the frame; WSC messages whose
// attribute lengths lie; Responses and M2s under random identifiers and
// nonces; Searches. Frames go to the 1905.1 multicast address, to each
// target, to broadcast and to unknown stations, from this device's own
// address or from a few made-up ones (never a target's: that would teach
// the link's bridge a wrong port instead of testing kestrd).
//
// Every Search it sees is answered under the Search's own identifier with
// Responses that are wrong in one way each, and one that is right, so the
// enrollee sends this device an M1 too. Every such M1 is answered with M2s
// that carry its enrollee nonce but fail a different check each: a spoiled
// Authenticator, a spoiled ciphertext, sealed settings cut short or longer
// than the frame, a missing registrar nonce, a zero public key. None of them
// may ever be saved. The device's own database should hold settings that
// differ from the real registrar's, so a forgery that got through would show.
//
// At the end it prints one line: "flood: sent N frames in T s (...)".
#include <arpa/inet.h>
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
#include <cstring>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "daemon/kestrd_enrollee.h"
#include "daemon/kestrd_registrar.h"
#include "port/19051_port.h"
#include "port/common/unique_fd.h"
#include "port/util.h"
#include "protocol/19051_msg.h"
#include "tests/e2e/crafted.h"
#include "tests/e2e/options.h"

namespace {

using Clock = std::chrono::steady_clock;
using Mac = std::array<uint8_t, 6>;
using Frame = std::vector<uint8_t>;
using kestr::test::find_attribute;

constexpr Mac kMulticast = {0x01, 0x80, 0xc2, 0x00, 0x00, 0x13};
constexpr Mac kBroadcast = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
constexpr int kForgedSources = 16;

// The raw side of br0: sends whole frames, receives what others send.
class Link {
  public:
    bool open(const char* ifname) {
        fd_ = kestr::UniqueFd(
            socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(kIeee1905EtherType)));
        const int one = 1;
        // This device's own frames are not news to it.
        setsockopt(fd_.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one);
        struct sockaddr_ll addr {};
        addr.sll_family = AF_PACKET;
        addr.sll_protocol = htons(kIeee1905EtherType);
        addr.sll_ifindex = static_cast<int>(if_nametoindex(ifname));
        return fd_.valid() && addr.sll_ifindex != 0 &&
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

    // The next received frame, padded to 1514 bytes as the TLV walk wants
    // it, waiting at most `ms` milliseconds.
    bool receive(Frame* f, int ms) {
        struct pollfd p = {fd_.get(), POLLIN, 0};
        f->assign(kCmduMaxFrameLen, 0);
        return poll(&p, 1, ms) > 0 && recv(fd_.get(), f->data(), f->size(), 0) >= kCmduMinFrameLen;
    }

  private:
    kestr::UniqueFd fd_;
};

enum Kind { kRandomBytes, kTlvSoup, kLyingWsc, kForgedResponse, kForgedM2, kSearch, kKinds };
constexpr const char* kKindNames[kKinds] = {"random",   "tlv-soup", "lying-wsc",
                                            "response", "m2",       "search"};
// Out of 1000 frames. Searches and M1-typed WSC messages cost the registrar
// an answer each, and every answer costs it a packet socket opened and
// closed (the close waits for the kernel's grace period, some 10 ms), an M1
// a key agreement on top: they stay rare, or the registrar would do nothing
// else.
constexpr int kWeights[kKinds] = {120, 400, 200, 120, 150, 10};

class Flood {
  public:
    Flood(uint64_t seed, std::vector<Mac> targets, Mac own)
        : rng_(seed), targets_(std::move(targets)), own_(own) {}

    Frame next(Kind* kind) {
        int pick = static_cast<int>(uniform(0, 999)), k = 0;
        while (pick >= kWeights[k])
            pick -= kWeights[k++];
        *kind = static_cast<Kind>(k);
        Frame f;
        kestr::ByteWriter w = header(&f, some_type(), random_mid(), destination(), source());
        size_t len = 0;
        if (*kind == kRandomBytes)
            len = random_bytes(&f);
        else if (*kind == kTlvSoup)
            len = tlv_soup(&w);
        else if (*kind == kLyingWsc)
            len = lying_wsc(&f, &w);
        else if (*kind == kForgedResponse)
            return response(random_mid(), static_cast<int>(uniform(0, 6)),
                            static_cast<int>(uniform(0, 2)), destination(), source());
        else if (*kind == kForgedM2)
            len = forged_m2(&f, &w);
        else
            len = search(&f, &w);
        f.resize(len);
        return f;
    }

    // A Response, right or wrong in one way, under `mid`.
    Frame response(uint16_t mid, int variant, int band, const Mac& to, const Mac& from) {
        Frame f;
        kestr::ByteWriter w = header(&f, 8, mid, to, from);
        const uint8_t b = static_cast<uint8_t>(band);
        if (variant == 0)  // the other band
            w.u8(15).u16(1).u8(0).u8(16).u16(1).u8(b ^ 1);
        else if (variant == 1)  // the enrollee's role
            w.u8(15).u16(1).u8(1).u8(16).u16(1).u8(b);
        else if (variant == 2)  // no role
            w.u8(16).u16(1).u8(b);
        else if (variant == 3)  // no band
            w.u8(15).u16(1).u8(0);
        else if (variant == 4)  // empty values
            w.u8(15).u16(0).u8(16).u16(0);
        else if (variant == 5)  // a band past the end
            w.u8(15).u16(1).u8(0).u8(16).u16(900).u8(b);
        else  // right
            w.u8(15).u16(1).u8(0).u8(16).u16(1).u8(b);
        w.zeros(3);
        f.resize(w.size());
        return f;
    }

    const Mac& own() const { return own_; }

  private:
    uint64_t uniform(uint64_t lo, uint64_t hi) {
        return std::uniform_int_distribution<uint64_t>(lo, hi)(rng_);
    }
    uint16_t random_mid() { return static_cast<uint16_t>(uniform(0, 0xFFFF)); }
    // `n` random bytes, or as many as still fit.
    void noise(kestr::ByteWriter& w, size_t n) {
        for (n = std::min(n, w.room()); n > 0; --n)
            w.u8(static_cast<uint8_t>(rng_()));
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
        for (auto& b : m)
            b = static_cast<uint8_t>(rng_());
        m[0] = 0x06;
        return m;
    }
    Mac source() {
        if (uniform(0, 4) != 0)
            return own_;
        return Mac{0x02, 0, 0, 0, 0xee, static_cast<uint8_t>(uniform(0, kForgedSources - 1))};
    }
    // Mostly the types the daemon handles, Searches among them rarely.
    uint16_t some_type() {
        const uint64_t r = uniform(0, 99);
        if (r < 2)
            return IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_SEARCH;
        return static_cast<uint16_t>(r < 80 ? uniform(8, 10) : uniform(0, 0xFFFF));
    }

    // Ethernet and CMDU headers in a 1514-byte frame; the content is up to
    // the caller, who cuts the frame to what it wrote.
    kestr::ByteWriter header(Frame* f, int type, uint16_t mid, const Mac& to, const Mac& from) {
        f->assign(kCmduMaxFrameLen, 0);
        kestr::ByteWriter w(f->data(), f->size());
        kestr::test::put_header(w, to.data(), from.data(), type, mid);
        return w;
    }

    // Addresses and EtherType; everything after is noise, the version byte
    // included, and the frame may end anywhere, even before the CMDU header.
    size_t random_bytes(Frame* f) {
        kestr::ByteWriter w(f->data() + kEtherHeaderLen, f->size() - kEtherHeaderLen);
        noise(w, uniform(0, kCmduMaxFrameLen - kEtherHeaderLen));
        return kEtherHeaderLen + w.size();
    }

    // TLVs of any type, or of the types the daemon reads, and any length:
    // values shorter than they need or running past the frame, and the
    // frame may end anywhere, also inside a TLV header.
    size_t tlv_soup(kestr::ByteWriter* w) {
        static constexpr uint8_t kRead[] = {1, 13, 14, 15, 16, 17};
        const bool read = uniform(0, 1) == 0;
        for (int i = static_cast<int>(uniform(0, 12)); i > 0 && w->room() > 3; --i) {
            const uint16_t len = static_cast<uint16_t>(
                uniform(0, 9) == 0 ? uniform(0, 0xFFFF) : uniform(0, read ? 1600 : 120));
            w->u8(read ? kRead[uniform(0, std::size(kRead) - 1)]
                       : static_cast<uint8_t>(uniform(0, 24)))
                .u16(len);
            noise(*w, read ? uniform(0, len) : len);
        }
        if (uniform(0, 1) == 0)
            w->zeros(3);
        return uniform(std::min<size_t>(w->size(), kCmduMinFrameLen), w->size());
    }

    // A WSC message whose attributes lie about their lengths (right, zero,
    // one short, or beyond their record or the frame), inside a WSC TLV that
    // may lie about its own. Mostly "M2s" for the enrollee; now and then an
    // "M1", which the registrar answers.
    size_t lying_wsc(Frame* f, kestr::ByteWriter* w) {
        static constexpr struct {
            uint16_t id;
            size_t len;
        } kAttrs[] = {
            {WSC_ID_VERSION, 1},        {WSC_ID_ENROLLEE_NONCE, 16}, {WSC_ID_REGISTRAR_NONCE, 16},
            {WSC_ID_PUBLIC_KEY, 192},   {WSC_ID_MAC_ADDR, 6},        {WSC_ID_RF_BANDS, 1},
            {WSC_ID_ENCR_SETTINGS, 80}, {WSC_ID_AUTHENTICATOR, 8},   {WSC_ID_MANUFACTURER, 5},
            {WSC_ID_VENDOR_EXT, 7},     {WSC_ID_ASSOC_STATE, 2},     {WSC_ID_UUID_E, 16}};
        kestr::store_be16(f->data() + 16, 9);
        w->u8(IEEE1905_TLV_TYPE_WPS);
        const size_t at = w->begin_u16_length();
        const uint64_t r = uniform(0, 999);
        const uint8_t message = r < 2 ? MessageType_M1 : (r < 900 ? MessageType_M2 : 0);
        if (message != 0)
            w->u16(WSC_ID_MSG_TYPE).u16(1).u8(message);
        for (int n = static_cast<int>(uniform(1, 10)); n > 0 && w->room() > 8; --n) {
            const auto& a = kAttrs[uniform(0, std::size(kAttrs) - 1)];
            const uint64_t lie = uniform(0, 7);
            const size_t len = lie == 0   ? 0
                               : lie == 1 ? (a.len > 0 ? a.len - 1 : 1)
                               : lie == 2 ? a.len + uniform(1, 1200)
                                          : a.len;
            w->u16(a.id).u16(static_cast<uint16_t>(len));
            noise(*w, len);
        }
        w->end_u16_length(at);
        if (uniform(0, 3) == 0)  // the TLV itself claims more than the frame has
            kestr::store_be16(f->data() + at, random_mid());
        return w->size();
    }

    // An M2 under a random nonce: nobody's M1 asked for it.
    size_t forged_m2(Frame* f, kestr::ByteWriter* w) {
        kestr::store_be16(f->data() + 16, 9);
        w->u8(IEEE1905_TLV_TYPE_WPS);
        const size_t at = w->begin_u16_length();
        w->u16(WSC_ID_VERSION).u16(1).u8(0x10).u16(WSC_ID_MSG_TYPE).u16(1).u8(MessageType_M2);
        w->u16(WSC_ID_ENROLLEE_NONCE).u16(16);
        noise(*w, 16);
        w->u16(WSC_ID_REGISTRAR_NONCE).u16(16);
        noise(*w, 16);
        w->u16(WSC_ID_PUBLIC_KEY).u16(192);
        noise(*w, 192);
        w->u16(WSC_ID_RF_BANDS).u16(1).u8(static_cast<uint8_t>(uniform(0, 3)));
        const uint16_t sealed = static_cast<uint16_t>(uniform(0, 200));
        w->u16(WSC_ID_ENCR_SETTINGS).u16(sealed);
        noise(*w, sealed);
        w->u16(WSC_ID_AUTHENTICATOR).u16(8);
        noise(*w, 8);
        w->end_u16_length(at);
        return w->zeros(3).size();
    }

    size_t search(Frame* f, kestr::ByteWriter* w) {
        kestr::store_be16(f->data() + 16, 7);
        std::copy(kMulticast.begin(), kMulticast.end(), f->begin());
        w->u8(1).u16(6).bytes(own_.data(), 6);
        w->u8(13).u16(1).u8(static_cast<uint8_t>(uniform(0, 2)));
        w->u8(14).u16(1).u8(static_cast<uint8_t>(uniform(0, 7)));
        return w->zeros(3).size();
    }

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

void answer_search(Link& link, Flood& flood, Reactions& r, Frame& f) {
    Mac from;
    std::copy(f.begin() + 6, f.begin() + 12, from.begin());
    const uint16_t mid = static_cast<uint16_t>(IEEE19051_GetMid(f.data()));
    if (!r.searches.insert({from, mid}).second)
        return;
    int band = 0;  // the band searched for, 0 when it names none
    const int total = IEEE19051_GetTlvTotalNumber(f.data());
    for (int i = 0; i < total; ++i) {
        const u_int8_t* tlv = IEEE19051_GetTlvByNumber(f.data(), i);
        if (tlv != nullptr && tlv[0] == IEEE1905_TLV_TYPE_FREQ_BAND &&
            kestr::load_be16(tlv + 1) >= 1)
            band = tlv[3];
    }
    for (int variant = 0; variant <= 6; ++variant)
        r.responses += link.send(flood.response(mid, variant, band, from, flood.own()));
}

// M2s that carry the M1's nonce and come from this device, so the enrollee
// hands every one of them to its M1's handler, and each fails one check.
void answer_m1(Link& link, Reactions& r, Frame& f, const Mac& own) {
    wsc_configuration_t m1, m2;
    u_int8_t* tlv = kestr::test::read_wsc(f.data(), &m1);
    if (tlv == nullptr || m1.message_type.valid != 1 || m1.message_type.val != MessageType_M1 ||
        m1.enrollee_nonce.valid != 1 ||
        !r.m1s.insert({m1.enrollee_nonce.val, m1.enrollee_nonce.val + 16}).second)
        return;

    std::memset(&m2, 0, sizeof m2);
    getWscConfigurationM2(&m2, m1, m1.rf_bands.val == RFBands_5G ? 1 : 0, tlv + kTlvHeaderLen,
                          kestr::load_be16(tlv + 1));
    param_t param{};
    std::memcpy(param.da.ether_addr_octet, f.data() + 6, 6);
    std::memcpy(param.sa.ether_addr_octet, own.data(), 6);
    Frame good(kCmduMaxFrameLen, 0);
    const int len = IEEE19051_GetPacketApAutoconfigurationWsc(
        reinterpret_cast<ieee1905Message_t*>(good.data()), param, &m2);
    if (len <= 0)
        return;
    good.resize(static_cast<size_t>(len));

    auto spoil = [&](uint16_t id, auto change) {
        const size_t at =
            find_attribute(good, kEtherHeaderLen + kCmduHeaderLen + kTlvHeaderLen, id);
        Frame copy = good;
        if (at != 0) {
            change(copy.data() + at);
            r.m2s += link.send(copy);
        }
    };
    spoil(WSC_ID_AUTHENTICATOR, [](uint8_t* a) { a[4] ^= 0x01; });
    spoil(WSC_ID_ENCR_SETTINGS, [](uint8_t* a) { a[4 + 20] ^= 0x80; });
    spoil(WSC_ID_ENCR_SETTINGS, [](uint8_t* a) { kestr::store_be16(a + 2, 17); });
    spoil(WSC_ID_ENCR_SETTINGS, [](uint8_t* a) { kestr::store_be16(a + 2, 0xFFF0); });
    spoil(WSC_ID_REGISTRAR_NONCE, [](uint8_t* a) { kestr::store_be16(a, 0x7777); });
    spoil(WSC_ID_PUBLIC_KEY, [](uint8_t* a) { std::fill(a + 4, a + 196, 0); });
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    int frames = 0, rate = 1000, seed = 1;
    std::vector<std::string> target_texts;
    std::vector<Mac> targets;
    bool ok = kestr::test::parse_options(argc, argv, "--frames", &frames, "--rate", &rate, "--seed",
                                         &seed, "--target", &target_texts);
    for (const std::string& t : target_texts) {
        struct ether_addr a;
        ok = ok && mac_str_to_etheraddr(t.c_str(), &a) == 0;
        targets.push_back(Mac{});
        std::copy(a.ether_addr_octet, a.ether_addr_octet + 6, targets.back().begin());
    }
    if (!ok || frames <= 0 || rate <= 0 || targets.empty()) {
        std::fprintf(stderr,
                     "usage: kestr_test_flood --frames N --rate PER_SECOND --target MAC... "
                     "[--seed S]\n");
        return 2;
    }
    char br0[] = "br0";
    struct ether_addr own_addr;
    Mac own;
    Link link;
    if (IEEE19051Port_GetMacByInterface(br0, &own_addr) != 0 || !link.open(br0)) {
        std::perror("flood: br0");
        return 1;
    }
    std::copy(own_addr.ether_addr_octet, own_addr.ether_addr_octet + 6, own.begin());

    std::printf("flood: listening on br0, seed %d\n", seed);
    Flood flood(static_cast<uint64_t>(seed), targets, own);
    Reactions reactions;
    long sent[kKinds] = {}, total = 0, failed = 0;
    const auto start = Clock::now();
    Frame in;
    while (total < frames) {
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        const long due = std::min<long>(frames, static_cast<long>(elapsed * rate));
        for (; total < due; ++total) {
            Kind kind;
            const bool done = link.send(flood.next(&kind));
            ++(done ? sent[kind] : failed);
        }
        while (link.receive(&in, total < frames ? 1 : 0)) {
            const int type = IEEE19051_GetType(in.data());
            if (type == IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_SEARCH)
                answer_search(link, flood, reactions, in);
            else if (type == IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC &&
                     std::equal(own.begin(), own.end(), in.begin()))
                answer_m1(link, reactions, in, own);
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
