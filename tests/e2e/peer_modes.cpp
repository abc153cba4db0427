#include "tests/e2e/peer_modes.h"

#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <vector>

#include "daemon/kestrd_apclone.h"
#include "port/19051_port.h"
#include "port/common/bytes.h"
#include "port/util.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse.h"
#include "protocol/19051_parse_wsc.h"
#include "protocol/mid.h"
#include "wsc/encrypt/encrypt.h"

namespace kestr::test {
namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<uint8_t>;
using Nonce = std::array<uint8_t, 16>;

char g_br0[] = "br0";

struct DhFree {
    void operator()(DH* dh) const { reg_proto_delete_dhkeypair(&dh); }
};

// One well-formed M1 and what opening its M2 takes.
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

// Where the attribute `id` starts inside a WSC TLV, or null.
uint8_t* attribute(Bytes& tlv, uint16_t id) {
    kestr::wsc::AttributeWalk walk(tlv.data() + kTlvHeaderLen, tlv.size() - kTlvHeaderLen);
    kestr::wsc::Attribute a;
    while (walk.next(&a)) {
        if (a.type == id)
            return const_cast<uint8_t*>(a.start);
    }
    return nullptr;
}

// Sends `tlv` in a WSC CMDU of `frame_len` bytes (whatever the TLV's own
// length field says).
bool send_wsc(const std::string& to, const Bytes& tlv, size_t frame_len) {
    return kestr::send_cmdu("peer", to.c_str(), g_br0, IEEE19051_GenMid(),
                            kestr::OnAddressFailure::Stop,
                            [&](ieee1905Message_t* packet, const param_t& param) {
                                kestr::ByteWriter w(packet, sizeof *packet);
                                w.bytes(param.da.ether_addr_octet, 6)
                                    .bytes(param.sa.ether_addr_octet, 6)
                                    .u16(kIeee1905EtherType);
                                w.u8(0).u8(0).u16(9).u16(static_cast<uint16_t>(param.mid));
                                w.u8(0).u8(0x80).bytes(tlv.data(), tlv.size()).zeros(3);
                                if (!w.ok())
                                    return -1;
                                return static_cast<int>(std::min(frame_len, w.size()));
                            }) == 0;
}

// Malformed WSC messages that carry an M1's bytes and a nonce of their own;
// none of them is an M1 the registrar may answer.
struct Malformed {
    const char* what;
    void (*spoil)(Bytes& tlv, size_t* frame_len);
};
constexpr Malformed kMalformed[] = {
    {"WSC TLV longer than the frame",
     [](Bytes& tlv, size_t* frame_len) {
         *frame_len = kEtherHeaderLen + kCmduHeaderLen + tlv.size();
         kestr::store_be16(tlv.data() + 1, static_cast<uint16_t>(tlv.size() - kTlvHeaderLen + 64));
     }},
    {"message type behind an attribute that lies",
     [](Bytes& tlv, size_t*) {
         // The Version's length claims everything after it.
         uint8_t* version = attribute(tlv, WSC_ID_VERSION);
         if (version != nullptr)
             kestr::store_be16(version + 2, 0x0FFF);
     }},
    {"an M2 sent to the registrar",
     [](Bytes& tlv, size_t*) {
         uint8_t* type = attribute(tlv, WSC_ID_MSG_TYPE);
         if (type != nullptr)
             type[4] = MessageType_M2;
     }},
    {"an M1 cut inside an attribute",
     [](Bytes&, size_t* frame_len) {
         *frame_len = kEtherHeaderLen + kCmduHeaderLen + kTlvHeaderLen + 40;
     }},
};

struct Tally {
    int opened_right = 0, opened_wrong = 0, refused = 0, for_malformed = 0, unexpected = 0;
};

// Opens one received M2 against the M1 it names.
void take_m2(u_int8_t* frame, std::map<Nonce, M1>& m1s, const std::set<Nonce>& malformed,
             const std::string& ssid24, const std::string& ssid5, Tally* t) {
    wsc_configuration_t m2;
    std::memset(&m2, 0, sizeof m2);
    u_int8_t* wsc = nullptr;
    const int total = IEEE19051_GetTlvTotalNumber(frame);
    for (int i = 0; i < total; ++i) {
        u_int8_t* tlv = IEEE19051_GetTlvByNumber(frame, i);
        if (tlv != nullptr && tlv[0] == IEEE1905_TLV_TYPE_WPS) {
            IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv), &m2);
            wsc = tlv;
        }
    }
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
            kestr::load_be16(m1.tlv.data() + 1), wsc + kTlvHeaderLen,
            kestr::load_be16(wsc + 1)) != 0) {
        ++t->refused;
        return;
    }
    const std::string& want = m1.band == 0 ? ssid24 : ssid5;
    const std::string got(reinterpret_cast<const char*>(settings.ssid.val),
                          settings.ssid.valid_len);
    const int want_band = m1.band == 0 ? RFBands_2P4G : RFBands_5G;
    (got == want && m2.rf_bands.val == want_band ? t->opened_right : t->opened_wrong)++;
}

}  // namespace

int m1_flood(int count, const std::string& to, const std::string& ssid24,
             const std::string& ssid5) {
    IEEE19051_MsgInit(g_br0);
    std::mt19937 rng(std::random_device{}());

    // Every key pair is made before the first M1 goes out, so the M1s and
    // the malformed messages leave in one burst.
    std::map<Nonce, M1> m1s;
    std::set<Nonce> malformed;
    struct Out {
        Bytes tlv;
        size_t frame_len;
    };
    std::vector<Out> burst;
    for (int i = 0; i < count; ++i) {
        wsc_configuration_t config;
        std::memset(&config, 0, sizeof config);
        M1 m1;
        m1.band = i % 2;
        DH* dh = nullptr;
        getWscConfigurationM1(&config, m1.band, &dh);
        m1.dh.reset(dh);
        Bytes tlv(kCmduContentLen, 0);
        if (IEEE19051_GetWscTlv(&config, tlv.data(), static_cast<int>(tlv.size())) < 0)
            return 1;
        tlv.resize(kTlvHeaderLen + kestr::load_be16(tlv.data() + 1));
        burst.push_back({tlv, SIZE_MAX});
        m1.tlv = tlv;
        const Nonce nonce = nonce_of(config.enrollee_nonce.val);
        m1s[nonce] = std::move(m1);
        if (i % 4 == 3) {
            const Malformed& kind = kMalformed[(i / 4) % std::size(kMalformed)];
            Out bad{tlv, SIZE_MAX};
            uint8_t* n = attribute(bad.tlv, WSC_ID_ENROLLEE_NONCE);
            if (n == nullptr)
                return 1;
            for (int b = 0; b < 16; ++b)
                n[4 + b] = static_cast<uint8_t>(rng());
            malformed.insert(nonce_of(n + 4));
            kind.spoil(bad.tlv, &bad.frame_len);
            burst.push_back(bad);
        }
    }
    const auto start = Clock::now();
    for (const Out& out : burst) {
        if (!send_wsc(to, out.tlv, out.frame_len))
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
        kestr::end_tlvs_at_received(frame, n);
        if (IEEE19051_GetType(frame) != IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC)
            continue;
        take_m2(frame, m1s, malformed, ssid24, ssid5, &t);
        answered = t.opened_right + t.opened_wrong + t.refused;
        last = std::chrono::duration<double>(Clock::now() - start).count();
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

int hold_mid_lock() {
    // The first allocation attaches (and on a fresh device sets up) the
    // counter, as it does in a daemon.
    std::printf("peer: mid %d\n", IEEE19051_GenMid());
    const int id = shmget(ftok(kMessageIdKeyFile, kMessageIdProjectId), 0, kMessageIdPermissions);
    void* addr = id < 0 ? reinterpret_cast<void*>(-1) : shmat(id, nullptr, 0);
    if (addr == reinterpret_cast<void*>(-1))
        return 1;
    auto* record = static_cast<messageId_t*>(addr);
    if (pthread_mutex_lock(&record->lock) != 0)
        return 1;
    std::printf("peer: holding the identifier lock\n");
    std::fflush(stdout);
    for (;;)
        pause();
}

}  // namespace kestr::test
