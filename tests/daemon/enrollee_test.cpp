// The enrollee's M2 handling in-process: a real M1 from sendM1, an M2 made by
// the registrar's own code and then varied (re-authenticated, so only the
// variation counts), handed to the receive path.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <vector>

#include "daemon/kestrd_apclone.h"
#include "daemon/kestrd_request_list.h"
#include "port/19051_port.h"
#include "port/common/bytes.h"
#include "port/util.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse.h"
#include "protocol/19051_parse_wsc.h"
#include "protocol/19051_protocol.h"
#include "tests/daemon/device_test.h"
#include "tests/support/capture.h"
#include "tests/support/netns.h"
#include "tests/support/xmldbd.h"
#include "wsc/encrypt/encrypt.h"
#include "wsc/encrypt/wps_openssl.h"

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
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
        dh_ = static_cast<RequestExtraDataM1_t*>(request.extraData)->dh;
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
        return kestr::test::capture_output([&] {
                   msgApcloneProcesM2(9, frame.data(), static_cast<int>(frame.size()));
               }).out;
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
