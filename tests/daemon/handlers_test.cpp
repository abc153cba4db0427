// The cloning handlers in-process, on one emulated device: the registrar's
// M1 handler against M1s built by the enrollee's own code (what goes out on
// the link, and whether the enrollee's side opens it), and the enrollee's
// M2 path with a real M1 from sendM1 and an M2 made by the registrar's own
// code, then varied (re-authenticated, so only the variation counts).
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <optional>
#include <vector>

#include "daemon/kestrd_apclone.h"
#include "daemon/kestrd_enrollee.h"
#include "daemon/kestrd_registrar.h"
#include "daemon/kestrd_request_list.h"
#include "daemon/kestrd_run.h"
#include "port/19051_port.h"
#include "port/common/bytes.h"
#include "port/util.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse.h"
#include "protocol/19051_parse_wsc.h"
#include "protocol/19051_protocol.h"
#include "tests/daemon/device_test.h"
#include "tests/support/capture.h"
#include "wsc/encrypt/encrypt.h"
#include "wsc/encrypt/wps_openssl.h"

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

struct M1Maker {
    wsc_configuration_t m1{};
    DH* dh = nullptr;
    Bytes m1_attributes;
    ~M1Maker() { reg_proto_delete_dhkeypair(&dh); }
};

// An M1 as the enrollee makes it, then `edit` applied, framed as a WSC
// message from `src` to br0.
Bytes m1_frame(M1Maker* e, int band, const std::function<void(wsc_configuration_t*)>& edit,
               const Bytes& src) {
    std::memset(&e->m1, 0, sizeof e->m1);
    reg_proto_delete_dhkeypair(&e->dh);  // a fresh key pair per M1
    getWscConfigurationM1(&e->m1, band, &e->dh);
    if (edit)
        edit(&e->m1);
    ieee1905Message_t frame{};
    param_t param{};
    std::memcpy(param.da.ether_addr_octet, kestr::test::interface_mac("br0").data(), 6);
    std::memcpy(param.sa.ether_addr_octet, src.data(), 6);
    param.mid = 1;
    const int n = IEEE19051_GetPacketApAutoconfigurationWsc(&frame, param, &e->m1);
    if (n <= 0)
        return {};
    const auto* raw = reinterpret_cast<const uint8_t*>(&frame);
    e->m1_attributes.assign(raw + 25, raw + 25 + kestr::load_be16(raw + 23));
    return Bytes(raw, raw + n);
}

struct Opened {
    wsc_configuration_t m2{};
    wsc_encrypted_settings_t settings{};
    int rc = -1;
    Bytes frame;
};

// The registrar's answer as captured on the far end, opened with the
// enrollee's key pair and kept M1.
std::optional<Opened> answer(kestr::test::PeerPort& peer, M1Maker& e, Bytes frame) {
    frame.resize(kCmduMaxFrameLen, 0);
    int rc = 0;
    kestr::test::capture_output(
        [&] { rc = msgApcloneProcesM1(9, frame.data(), static_cast<int>(frame.size())); });
    if (rc != 0)
        return std::nullopt;
    auto got = peer.receive(3000ms);
    if (!got)
        return std::nullopt;
    Opened o;
    o.frame = *got;
    got->resize(kCmduMaxFrameLen, 0);
    u_int8_t* tlv = IEEE19051_GetTlvByNumber(got->data(), 0);
    if (tlv == nullptr)
        return std::nullopt;
    IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv), &o.m2);
    o.rc = IEEE19051_ParseTlvWscEncryptedSettings(
        &o.m2, e.dh, e.m1.mac.val, &o.settings, e.m1_attributes.data(),
        static_cast<int>(e.m1_attributes.size()), tlv + 3, kestr::load_be16(tlv + 1));
    return o;
}

std::string ssid(const Opened& o) {
    return std::string(reinterpret_cast<const char*>(o.settings.ssid.val),
                       o.settings.ssid.valid_len);
}

using Registration = kestr::test::DeviceTest;

// The band of the answer follows the M1's RF Bands; WSC messages that are no
// M1 get no answer at all.
TEST_F(Registration, BandFollowsTheM1sRfBandsAndOnlyM1sAreAnswered) {
    using C = wsc_configuration_t;
    struct Case {
        const char* what;
        std::function<void(C*)> edit;
        const char* ssid;  // nullptr: no answer
        int rf_bands;
    } cases[] = {
        {"RF Bands 2", [](C* c) { c->rf_bands.val = 2; }, "kestrel-home-5G", 2},
        {"RF Bands 1", [](C* c) { c->rf_bands.val = 1; }, "kestrel-home-24", 1},
        {"RF Bands 3", [](C* c) { c->rf_bands.val = 3; }, "kestrel-home-24", 1},
        {"no RF Bands", [](C* c) { c->rf_bands = {}; }, "kestrel-home-24", 1},
        {"an M2", [](C* c) { c->message_type.val = MessageType_M2; }, nullptr, 0},
        {"message type 0", [](C* c) { c->message_type.val = 0; }, nullptr, 0},
        {"message type 7", [](C* c) { c->message_type.val = 7; }, nullptr, 0},
    };
    for (const auto& c : cases) {
        M1Maker e;
        auto opened = answer(*peer_, e, m1_frame(&e, 1, c.edit, peer_->mac()));
        if (c.ssid == nullptr) {
            EXPECT_FALSE(opened) << c.what;
            EXPECT_FALSE(peer_->receive(300ms)) << c.what;
            continue;
        }
        ASSERT_TRUE(opened) << c.what;
        EXPECT_EQ(opened->rc, 0) << c.what;
        EXPECT_EQ(ssid(*opened), c.ssid) << c.what;
        EXPECT_EQ(opened->m2.rf_bands.val, c.rf_bands) << c.what;
        EXPECT_EQ(opened->settings.authentication_type.val, 0x0022) << c.what;
        EXPECT_EQ(opened->settings.encryption_type.val, 0x000C) << c.what;
    }
}

// The M2 goes to the address the M1 names, not to the frame's sender, and
// its keys are derived with that address.
TEST_F(Registration, M2GoesToTheMacNamedInM1) {
    M1Maker e;
    const Bytes named = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    auto frame = m1_frame(
        &e, 0, [&](wsc_configuration_t* c) { std::memcpy(c->mac.val, named.data(), 6); },
        peer_->mac());
    auto opened = answer(*peer_, e, frame);
    ASSERT_TRUE(opened);
    EXPECT_EQ(Bytes(opened->frame.begin(), opened->frame.begin() + 6), named);
    EXPECT_EQ(opened->rc, 0);
}

TEST_F(Registration, RepeatedM1sGetFreshAnswers) {
    M1Maker e;
    const Bytes frame = m1_frame(&e, 0, nullptr, peer_->mac());
    auto a = answer(*peer_, e, frame);
    auto b = answer(*peer_, e, frame);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->rc, 0);
    EXPECT_EQ(b->rc, 0);
    auto differ = [](const auto& x, const auto& y) { return std::memcmp(&x, &y, sizeof x) != 0; };
    EXPECT_NE(kestr::load_be16(a->frame.data() + 18), kestr::load_be16(b->frame.data() + 18));
    EXPECT_TRUE(differ(a->m2.registrar_nonce, b->m2.registrar_nonce));
    EXPECT_TRUE(differ(a->m2.public_key, b->m2.public_key));
    EXPECT_TRUE(differ(a->m2.encrypted_settings.val, b->m2.encrypted_settings.val));  // IV
}

using kestr::test::db_get;

class Enrollee : public kestr::test::DeviceTest {
  protected:
    void TearDown() override {
        while (auto* r = IEEE19051_GetFirstRequestRecord()) {
            releaseRequestRecord(&r->info);
            IEEE19051_DelRequestRecord(r);
        }
    }

    // Sends an M1 for `band` to the peer and returns what the registrar sees.
    void send_m1(int band) {
        struct ether_addr peer_mac;
        std::memcpy(peer_mac.ether_addr_octet, peer_->mac().data(), 6);
        char to[kMacTextSize];
        mac_etheraddr_to_str(&peer_mac, to, sizeof to);
        kestr::test::capture_output([&] { ASSERT_EQ(sendM1(to, band), 0); });
        auto frame = peer_->receive(3000ms);
        ASSERT_TRUE(frame);
        frame->resize(kCmduMaxFrameLen, 0);
        u_int8_t* tlv = IEEE19051_GetTlvByNumber(frame->data(), 0);
        ASSERT_NE(tlv, nullptr);
        std::memset(&m1_, 0, sizeof m1_);
        IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv), &m1_);
        m1_attributes_.assign(tlv + 3, tlv + 3 + kestr::load_be16(tlv + 1));
        IEEE19051_Info_t request{};
        ASSERT_EQ(IEEE19051_GetRequestRecordInfoByEnrolleeNonce(m1_.enrollee_nonce.val, 9, peer_mac,
                                                                &request),
                  0);
        dh_ = static_cast<RequestExtraDataM1_t*>(request.extraData)->dh.get();
    }

    // The registrar's M2 for the kept M1, varied by `edit` and authenticated
    // again with the keys both sides derive, framed as coming from `src`.
    Bytes m2_frame(const std::function<void(wsc_configuration_t*)>& edit, const Bytes& src) {
        wsc_configuration_t m2{};
        getWscConfigurationM2(&m2, m1_, m1_.rf_bands.val == RFBands_5G ? 1 : 0,
                              m1_attributes_.data(), static_cast<int>(m1_attributes_.size()));
        edit(&m2);
        wps_keys_t keys{};
        get_keys(m2.public_key.val, dh_, m1_.enrollee_nonce.val, m2.registrar_nonce.val,
                 m1_.mac.val, &keys);
        m2.authenticator.valid = 0;
        u_int8_t tlv[kCmduContentLen] = {};
        const int n = IEEE19051_GetWscTlv(&m2, tlv, sizeof tlv);
        EXPECT_GT(n, 0);
        u_int8_t digest[32];
        kestr::hmac_sha256_two(keys.authKey, 32, m1_attributes_.data(), m1_attributes_.size(),
                               tlv + 3, static_cast<size_t>(n - 3), digest);
        std::memcpy(m2.authenticator.val, digest, 8);
        m2.authenticator.valid_len = 8;
        m2.authenticator.valid = 1;

        ieee1905Message_t frame{};
        param_t param{};
        std::memcpy(param.da.ether_addr_octet, m1_.mac.val, 6);
        std::memcpy(param.sa.ether_addr_octet, src.data(), 6);
        const int len = IEEE19051_GetPacketApAutoconfigurationWsc(&frame, param, &m2);
        EXPECT_GT(len, 0);
        const auto* raw = reinterpret_cast<const uint8_t*>(&frame);
        return Bytes(raw, raw + kCmduMaxFrameLen);
    }

    std::string deliver(Bytes frame) {
        return kestr::test::capture_output(
                   [&] { msgApcloneProcesM2(9, frame.data(), static_cast<int>(frame.size())); })
            .out;
    }

    wsc_configuration_t m1_{};
    Bytes m1_attributes_;
    DH* dh_ = nullptr;
};

TEST_F(Enrollee, TheM2DecidesTheBand) {
    struct Case {
        const char* what;
        int m1_band;
        std::function<void(wsc_configuration_t*)> edit;
        const char* saved_under;
    } cases[] = {
        {"5G M2 for a 5G M1", 1, [](wsc_configuration_t*) {}, "BAND_5G"},
        {"M2 without RF Bands", 0, [](wsc_configuration_t* c) { c->rf_bands = {}; }, "BAND_5G"},
        {"RF Bands 1 for a 5G M1", 1, [](wsc_configuration_t* c) { c->rf_bands.val = 1; },
         "BAND_2P4G"},
    };
    int count_24 = 0, count_5 = 0;
    for (const auto& c : cases) {
        send_m1(c.m1_band);
        const std::string out = deliver(m2_frame(c.edit, peer_->mac()));
        EXPECT_EQ(out.find("err:"), std::string::npos) << c.what << out;
        const bool five = std::string(c.saved_under) == "BAND_5G";
        const int n = five ? ++count_5 : ++count_24;
        const std::string base = std::string("/runtime/apcloning/") + c.saved_under;
        EXPECT_EQ(db_get(base + "/count"), std::to_string(n)) << c.what;
        EXPECT_FALSE(db_get(base + "/backup_setting:" + std::to_string(n) + "/ssid").empty())
            << c.what;
    }
}

TEST_F(Enrollee, RefusedM2sSaveNothing) {
    send_m1(0);
    struct Case {
        const char* what;
        std::function<void(wsc_configuration_t*)> edit;
        Bytes src;
        const char* line;  // the error line's body, or "" for a silent drop
    } cases[] = {
        {"another sender", [](wsc_configuration_t*) {}, {0x02, 9, 9, 9, 9, 9}, ""},
        {"another enrollee nonce", [](wsc_configuration_t* c) { c->enrollee_nonce.val[0] ^= 1; },
         peer_->mac(), ""},
        {"no Registrar Nonce", [](wsc_configuration_t* c) { c->registrar_nonce = {}; },
         peer_->mac(), "Err:IEEE19051_ParseTlvWscEncryptedSettings\n"},
        {"not an M2", [](wsc_configuration_t* c) { c->message_type.val = MessageType_M1; },
         peer_->mac(), ""},
    };
    for (const auto& c : cases) {
        const std::string out = deliver(m2_frame(c.edit, c.src));
        if (c.line[0] == '\0') {
            EXPECT_EQ(out.find("err:"), std::string::npos) << c.what << out;
        } else {
            EXPECT_NE(out.find(c.line), std::string::npos) << c.what << out;
        }
        EXPECT_EQ(db_get("/runtime/apcloning/BAND_2P4G/count"), "") << c.what;
    }
}

}  // namespace
