// A test peer for the end-to-end tests: a registrar that answers with frames
// crafted from the project's own builders, a sender of single CMDUs, many
// enrollees at once, or a process that dies holding the device's identifier
// lock. Runs inside an emulated device, on its br0.
//
//   kestr_test_peer [--band B] [--role R] [--omit role|band] [--responses N]
//                   [--m2 none|good|bad-auth|replay] [--m2-delay MS] [--from MAC]
//                   [--for SECONDS]
//   kestr_test_peer --send TYPE --to MAC
//   kestr_test_peer --m1-flood N --to MAC --ssid24 TEXT --ssid5 TEXT
//   kestr_test_peer --hold-mid-lock | --mid
#include <sys/shm.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "daemon/kestrd_enrollee.h"
#include "daemon/kestrd_registrar.h"
#include "port/19051_port.h"
#include "port/util.h"
#include "protocol/19051_msg.h"
#include "protocol/mid.h"
#include "tests/e2e/crafted.h"
#include "tests/e2e/options.h"
#include "wsc/encrypt/encrypt.h"

namespace {

using kestr::test::put_header;
using Bytes = std::vector<uint8_t>;
using Nonce = std::array<uint8_t, 16>;

struct Options {
    int band = -1;  // -1: the band searched for
    int role = 0;
    std::string omit;
    int responses = -1;
    std::string m2 = "none";
    std::string from;
    int seconds = 10;
    int send_type = -1;
    std::string to;
    int m2_delay_ms = 0;
    int m1_flood = 0;
    std::string ssid24, ssid5;
    bool hold_mid_lock = false;
    bool mid = false;
};

char g_br0[] = "br0";

// Sends one CMDU of `type` to `to`: the header, then what `content` writes.
int send_crafted(const std::string& to, int type, int mid,
                 const std::function<void(kestr::ByteWriter&)>& content) {
    return kestr::send_cmdu(
        "peer", kestr::test::mac_of(to.c_str()), g_br0, mid, kestr::OnAddressFailure::Stop,
        [&](ieee1905Message_t* packet, const param_t& param) {
            kestr::ByteWriter w(packet, sizeof *packet);
            put_header(w, param.da.ether_addr_octet, param.sa.ether_addr_octet, type, param.mid);
            content(w);
            return w.ok() ? static_cast<int>(w.size()) : -1;
        });
}

// Answers an M1 with an M2 sealed by the registrar's own code, then spoils it
// as asked: a wrong Authenticator, another Ethernet source, or sent twice.
void answer_m1(const Options& o, u_int8_t* frame) {
    wsc_configuration_t m1, m2;
    const u_int8_t* tlv = kestr::test::read_wsc(frame, &m1);
    if (tlv == nullptr || m1.message_type.val != MessageType_M1)
        return;
    std::memset(&m2, 0, sizeof m2);
    getWscConfigurationM2(&m2, m1, m1.rf_bands.val == RFBands_5G ? 1 : 0,
                          const_cast<u_int8_t*>(tlv) + kTlvHeaderLen, kestr::load_be16(tlv + 1));
    if (o.m2 == "bad-auth")
        m2.authenticator.val[7] ^= 0x01;

    struct ether_addr enrollee, from{};
    std::memcpy(enrollee.ether_addr_octet, m1.mac.val, 6);
    char to[kMacTextSize];
    mac_etheraddr_to_str(&enrollee, to, sizeof to);
    const bool forge = !o.from.empty() && mac_str_to_etheraddr(o.from.c_str(), &from) == 0;
    const int mid = IEEE19051_GenMid();
    // Time for the test to change the enrollee's world before the M2 lands.
    if (o.m2_delay_ms > 0) {
        std::printf("peer: M2 in %d ms\n", o.m2_delay_ms);
        std::fflush(stdout);
        std::this_thread::sleep_for(std::chrono::milliseconds(o.m2_delay_ms));
    }
    for (int i = 0; i < (o.m2 == "replay" ? 2 : 1); ++i) {
        kestr::send_cmdu("peer", kestr::test::mac_of(to), g_br0, mid, kestr::OnAddressFailure::Stop,
                         [&](ieee1905Message_t* packet, const param_t& param) {
                             const int n =
                                 IEEE19051_GetPacketApAutoconfigurationWsc(packet, param, &m2);
                             if (forge)
                                 std::memcpy(packet->etherHeader.ether_shost, &from, 6);
                             return n;
                         });
        std::printf("peer: M2 (%s) to %s\n", o.m2.c_str(), to);
    }
}

int serve(const Options& o) {
    IEEE19051_MsgInit(g_br0);
    u_int8_t frame[kCmduMaxFrameLen];
    int answered = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(o.seconds);
    while (std::chrono::steady_clock::now() < end) {
        std::memset(frame, 0, sizeof frame);
        if (IEEE19051_RecvMsg("br0", frame, sizeof frame, 1) <= 0)
            continue;
        const int type = IEEE19051_GetType(frame);
        if (type == 7 && (o.responses < 0 || answered < o.responses)) {
            uint8_t band = 0;
            const int total = IEEE19051_GetTlvTotalNumber(frame);
            for (int i = 0; i < total; ++i) {
                const u_int8_t* tlv = IEEE19051_GetTlvByNumber(frame, i);
                if (tlv != nullptr && tlv[0] == IEEE1905_TLV_TYPE_FREQ_BAND)
                    band = tlv[3];
            }
            band = o.band >= 0 ? static_cast<uint8_t>(o.band) : band;
            struct ether_addr src;
            IEEE19051_GetEtherSmac(frame, &src);
            char to[kMacTextSize];
            mac_etheraddr_to_str(&src, to, sizeof to);
            send_crafted(to, 8, IEEE19051_GetMid(frame), [&](kestr::ByteWriter& w) {
                if (o.omit != "role")
                    w.u8(15).u16(1).u8(static_cast<uint8_t>(o.role));
                if (o.omit != "band")
                    w.u8(16).u16(1).u8(band);
                w.zeros(3);
            });
            ++answered;
            std::printf("peer: Response to %s\n", to);
        } else if (type == 9 && o.m2 != "none") {
            answer_m1(o, frame);
        }
        std::fflush(stdout);
    }
    IEEE19051_MsgUninit();
    return 0;
}

// ---- Many enrollees at once ----
//
// `count` well-formed M1s, each with its own key pair and nonce, and one
// malformed WSC message after every fourth, all sent to the registrar at
// `to` in one burst. Every M2 that comes back is opened with the key pair of
// its M1 and must carry the registrar's SSID for the M1's band; the
// malformed ones must not be answered. Prints one summary line; 0 when
// every well-formed M1 got its M2 and nothing else came.

struct DhFree {
    void operator()(DH* dh) const { reg_proto_delete_dhkeypair(&dh); }
};

struct M1 {
    std::unique_ptr<DH, DhFree> dh;
    Bytes tlv;  // the WSC TLV as sent
    int band = 0;
    bool answered = false;
};

Nonce nonce_of(const u_int8_t* p) {
    Nonce n;
    std::memcpy(n.data(), p, n.size());
    return n;
}

// Malformed WSC messages that carry an M1's bytes and a nonce of their own;
// none of them is an M1 the registrar may answer. Each may change the TLV
// and the length of the frame it goes out in.
using Spoil = void (*)(Bytes& tlv, size_t* frame_len);
constexpr Spoil kMalformed[] = {
    // A WSC TLV longer than the frame.
    [](Bytes& tlv, size_t* frame_len) {
        *frame_len = kEtherHeaderLen + kCmduHeaderLen + tlv.size();
        kestr::store_be16(tlv.data() + 1, static_cast<uint16_t>(tlv.size() - kTlvHeaderLen + 64));
    },
    // The message type behind an attribute that lies: the Version's length
    // claims everything after it.
    [](Bytes& tlv, size_t*) {
        if (size_t at = kestr::test::find_attribute(tlv, kTlvHeaderLen, WSC_ID_VERSION))
            kestr::store_be16(tlv.data() + at + 2, 0x0FFF);
    },
    // An M2 sent to the registrar.
    [](Bytes& tlv, size_t*) {
        if (size_t at = kestr::test::find_attribute(tlv, kTlvHeaderLen, WSC_ID_MSG_TYPE))
            tlv[at + 4] = MessageType_M2;
    },
    // An M1 cut inside an attribute.
    [](Bytes&, size_t* frame_len) {
        *frame_len = kEtherHeaderLen + kCmduHeaderLen + kTlvHeaderLen + 40;
    },
};

struct Tally {
    int opened_right = 0, opened_wrong = 0, refused = 0, for_malformed = 0, unexpected = 0;
};

// Opens one received M2 against the M1 it names.
void take_m2(u_int8_t* frame, std::map<Nonce, M1>& m1s, const std::set<Nonce>& malformed,
             const std::string& ssid24, const std::string& ssid5, Tally* t) {
    wsc_configuration_t m2;
    const u_int8_t* wsc = kestr::test::read_wsc(frame, &m2);
    if (wsc == nullptr || m2.message_type.val != MessageType_M2)
        return;
    const Nonce nonce = nonce_of(m2.enrollee_nonce.val);
    if (malformed.count(nonce) != 0) {
        ++t->for_malformed;
        return;
    }
    auto it = m1s.find(nonce);
    if (it == m1s.end() || it->second.answered) {
        ++t->unexpected;
        return;
    }
    M1& m1 = it->second;
    m1.answered = true;
    struct ether_addr own;
    IEEE19051Port_GetMacByInterface(g_br0, &own);
    wsc_encrypted_settings_t settings;
    std::memset(&settings, 0, sizeof settings);
    if (IEEE19051_ParseTlvWscEncryptedSettings(
            &m2, m1.dh.get(), own.ether_addr_octet, &settings, m1.tlv.data() + kTlvHeaderLen,
            kestr::load_be16(m1.tlv.data() + 1), const_cast<u_int8_t*>(wsc) + kTlvHeaderLen,
            kestr::load_be16(wsc + 1)) != 0) {
        ++t->refused;
        return;
    }
    const std::string got(reinterpret_cast<const char*>(settings.ssid.val),
                          settings.ssid.valid_len);
    const bool right = got == (m1.band == 0 ? ssid24 : ssid5) &&
                       m2.rf_bands.val == (m1.band == 0 ? RFBands_2P4G : RFBands_5G);
    ++(right ? t->opened_right : t->opened_wrong);
}

int m1_flood(int count, const std::string& to, const std::string& ssid24,
             const std::string& ssid5) {
    IEEE19051_MsgInit(g_br0);
    std::mt19937 rng(std::random_device{}());

    // Every key pair is made before the first M1 goes out, so the M1s and
    // the malformed messages leave in one burst.
    std::map<Nonce, M1> m1s;
    std::set<Nonce> malformed;
    std::vector<std::pair<Bytes, size_t>> burst;  // TLV and frame length
    for (int i = 0; i < count; ++i) {
        wsc_configuration_t config;
        std::memset(&config, 0, sizeof config);
        M1 m1;
        m1.band = i % 2;
        DH* dh = nullptr;
        getWscConfigurationM1(&config, m1.band, &dh);
        m1.dh.reset(dh);
        m1.tlv.assign(kCmduContentLen, 0);
        if (IEEE19051_GetWscTlv(&config, m1.tlv.data(), kCmduContentLen) < 0)
            return 1;
        m1.tlv.resize(kTlvHeaderLen + kestr::load_be16(m1.tlv.data() + 1));
        burst.emplace_back(m1.tlv, SIZE_MAX);
        if (i % 4 == 3) {
            auto bad = burst.back();
            const size_t n =
                kestr::test::find_attribute(bad.first, kTlvHeaderLen, WSC_ID_ENROLLEE_NONCE);
            if (n == 0)
                return 1;
            for (int b = 0; b < 16; ++b)
                bad.first[n + 4 + b] = static_cast<uint8_t>(rng());
            malformed.insert(nonce_of(bad.first.data() + n + 4));
            kMalformed[(i / 4) % std::size(kMalformed)](bad.first, &bad.second);
            burst.push_back(bad);
        }
        m1s[nonce_of(config.enrollee_nonce.val)] = std::move(m1);
    }
    const auto start = std::chrono::steady_clock::now();
    for (const auto& [tlv, frame_len] : burst) {
        const int rc = kestr::send_cmdu(
            "peer", kestr::test::mac_of(to.c_str()), g_br0, IEEE19051_GenMid(),
            kestr::OnAddressFailure::Stop,
            [&, &tlv = tlv, frame_len = frame_len](ieee1905Message_t* packet, const param_t& p) {
                kestr::ByteWriter w(packet, sizeof *packet);
                put_header(w, p.da.ether_addr_octet, p.sa.ether_addr_octet, 9, p.mid)
                    .bytes(tlv.data(), tlv.size())
                    .zeros(3);
                return w.ok() ? static_cast<int>(std::min(frame_len, w.size())) : -1;
            });
        if (rc != 0)
            return 1;
    }

    Tally t;
    u_int8_t frame[kCmduMaxFrameLen];
    int idle = 0, answered = 0;
    double last = 0;
    // Done when every M1 is answered and the link has been quiet a while, so
    // a late answer to a malformed message would still be seen.
    while (idle < (answered == count ? 2 : 10)) {
        const int n = IEEE19051_RecvMsg("br0", frame, sizeof frame, 1);
        if (n <= 0) {
            ++idle;
            continue;
        }
        idle = 0;
        std::memset(frame + n, 0, sizeof frame - static_cast<size_t>(n));
        if (IEEE19051_GetType(frame) != IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC)
            continue;
        take_m2(frame, m1s, malformed, ssid24, ssid5, &t);
        answered = t.opened_right + t.opened_wrong + t.refused;
        last = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    IEEE19051_MsgUninit();
    std::printf(
        "peer: m1-flood: %d M1s and %zu malformed messages to %s in one burst; %d M2s opened "
        "with the band's settings, %d with others, %d refused, %d for malformed messages, %d "
        "unexpected, %d M1s unanswered; last M2 after %.1f s\n",
        count, malformed.size(), to.c_str(), t.opened_right, t.opened_wrong, t.refused,
        t.for_malformed, t.unexpected, count - answered, last);
    return t.opened_right == count && t.for_malformed == 0 && t.unexpected == 0 ? 0 : 1;
}

// Takes the device's identifier lock and keeps it until killed, as a daemon
// would that dies inside an allocation.
int hold_mid_lock() {
    // The first allocation attaches (and on a fresh device sets up) the
    // counter, as it does in a daemon.
    std::printf("peer: mid %d\n", IEEE19051_GenMid());
    const int id = shmget(ftok(kMessageIdKeyFile, kMessageIdProjectId), 0, kMessageIdPermissions);
    void* addr = id < 0 ? reinterpret_cast<void*>(-1) : shmat(id, nullptr, 0);
    if (addr == reinterpret_cast<void*>(-1) ||
        pthread_mutex_lock(&static_cast<messageId_t*>(addr)->lock) != 0)
        return 1;
    std::printf("peer: holding the identifier lock\n");
    std::fflush(stdout);
    for (;;)
        pause();
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Options o;
    if (!kestr::test::parse_options(argc, argv, "--band", &o.band, "--role", &o.role, "--responses",
                                    &o.responses, "--for", &o.seconds, "--send", &o.send_type,
                                    "--m2-delay", &o.m2_delay_ms, "--m1-flood", &o.m1_flood,
                                    "--omit", &o.omit, "--m2", &o.m2, "--from", &o.from, "--to",
                                    &o.to, "--ssid24", &o.ssid24, "--ssid5", &o.ssid5,
                                    "--hold-mid-lock", &o.hold_mid_lock, "--mid", &o.mid))
        return 2;
    if (o.send_type >= 0)
        return send_crafted(o.to, o.send_type, IEEE19051_GenMid(),
                            [](kestr::ByteWriter& w) { w.zeros(3); }) == 0
                   ? 0
                   : 1;
    if (o.m1_flood > 0)
        return m1_flood(o.m1_flood, o.to, o.ssid24, o.ssid5);
    if (o.hold_mid_lock)
        return hold_mid_lock();
    if (o.mid) {
        std::printf("peer: mid %d\n", IEEE19051_GenMid());
        return 0;
    }
    return serve(o);
}
