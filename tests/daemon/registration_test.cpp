// The registrar's M1 handler against M1s built by the enrollee's own code:
// what goes out on the link, and whether the enrollee's side opens it.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <vector>

#include "daemon/kestrd_apclone.h"
#include "port/19051_port.h"
#include "port/common/bytes.h"
#include "protocol/19051_parse.h"
#include "protocol/19051_parse_wsc.h"
#include "protocol/19051_protocol.h"
#include "tests/daemon/device_test.h"
#include "tests/support/capture.h"
#include "tests/support/netns.h"
#include "tests/support/xmldbd.h"
#include "wsc/encrypt/encrypt.h"

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

struct Enrollee {
    wsc_configuration_t m1{};
    DH* dh = nullptr;
    Bytes m1_attributes;
    ~Enrollee() { reg_proto_delete_dhkeypair(&dh); }
};

// An M1 as the enrollee makes it, then `edit` applied, framed as a WSC
// message from `src` to br0.
Bytes m1_frame(Enrollee* e, int band, const std::function<void(wsc_configuration_t*)>& edit,
               const Bytes& src) {
    std::memset(&e->m1, 0, sizeof e->m1);
    reg_proto_delete_dhkeypair(&e->dh);  // a fresh key pair per M1
    getWscConfigurationM1(&e->m1, band, &e->dh);
    if (edit) edit(&e->m1);
    ieee1905Message_t frame{};
    param_t param{};
    std::memcpy(param.da.ether_addr_octet, kestr::test::interface_mac("br0").data(), 6);
    std::memcpy(param.sa.ether_addr_octet, src.data(), 6);
    param.mid = 1;
    const int n = IEEE19051_GetPacketApAutoconfigurationWsc(&frame, param, &e->m1);
    if (n <= 0) return {};
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
std::optional<Opened> answer(kestr::test::PeerPort& peer, Enrollee& e, Bytes frame) {
    frame.resize(kCmduMaxFrameLen, 0);
    int rc = 0;
    kestr::test::capture_output([&] { rc = msgApcloneProcesM1(9, frame.data(), 0); });
    if (rc != 0) return std::nullopt;
    auto got = peer.receive(3000ms);
    if (!got) return std::nullopt;
    Opened o;
    o.frame = *got;
    got->resize(kCmduMaxFrameLen, 0);
    u_int8_t* tlv = IEEE19051_GetTlvByNumber(got->data(), 0);
    if (tlv == nullptr) return std::nullopt;
    IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv), &o.m2);
    o.rc = IEEE19051_ParseTlvWscEncryptedSettings(
        &o.m2, e.dh, e.m1.mac.val, &o.settings, e.m1_attributes.data(),
        static_cast<int>(e.m1_attributes.size()), tlv + 3, kestr::load_be16(tlv + 1));
    return o;
}

std::string ssid(const Opened& o) {
    return std::string(reinterpret_cast<const char*>(o.settings.ssid.val), o.settings.ssid.valid_len);
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
        Enrollee e;
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
    Enrollee e;
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
    Enrollee e;
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

}  // namespace
