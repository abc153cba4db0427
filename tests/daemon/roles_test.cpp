// The two roles against each other, in one emulated device: the registrar's
// handlers answer frames built by the enrollee's own code, and the
// enrollee's handlers open what the registrar's own code seals. The far end
// of br0 (veth1) carries every frame either side sends.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "daemon/kestrd_apclone.h"
#include "daemon/kestrd_enrollee.h"
#include "daemon/kestrd_registrar.h"
#include "daemon/kestrd_request_list.h"
#include "daemon/kestrd_run.h"
#include "port/19051_port.h"
#include "protocol/19051_message.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse_wsc.h"
#include "protocol/19051_protocol.h"
#include "tests/support/bytes.h"
#include "tests/support/capture.h"
#include "tests/support/netns.h"
#include "tests/support/xmldbd.h"
#include "wsc/encrypt/wps_openssl.h"

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
using Edit = std::function<void(wsc_configuration_t*)>;
using kestr::test::db_get;
using kestr::test::hex;

// One device: its namespaces, its database (the registrar's seed; `role`
// decides which handlers it is), and the far end of its bridge.
class Device : public ::testing::Test {
  protected:
    // Here, not in start(): a skip (no namespaces under an emulator) must end
    // the test, and GTEST_SKIP only leaves the function it is in.
    void SetUp() override { KESTR_ENTER_NAMESPACES({.ipc = true}); }
    void start(const char* role) {
        db_ = std::make_unique<kestr::test::XmldbdProcess>(kestr::test::seed_path("registrar.xml"));
        ASSERT_TRUE(db_->ok());
        ASSERT_EQ(kestr::test::db_set("/device/apcloning/role", role), 0);
        peer_ = std::make_unique<kestr::test::PeerPort>();
        ASSERT_TRUE(peer_->ok());
    }
    void TearDown() override {
        while (auto* r = IEEE19051_GetFirstRequestRecord())
            IEEE19051_DelRequestRecord(r);
        IEEE19051_UninitList();
    }
    // A frame from the peer to br0, built by the product's own builder.
    Bytes frame_to_br0(const std::function<int(ieee1905Message_t*, param_t)>& build) {
        kestr::test::Frame f;
        param_t p{};
        p.da = kestr::test::mac(kestr::test::interface_mac("br0"));
        p.sa = kestr::test::mac(peer_->mac());
        p.mid = 0x4242;
        const int n = build(f.msg(), p);
        return n > 0 ? f.head(n) : Bytes{};
    }
    // What br0 sent next, kept in `frame` and read into a WSC message
    // record whose views point into it.
    bool next_wsc(kestr::WscMessage* m, Bytes* frame) {
        auto got = peer_->receive(3s);
        if (!got)
            return false;
        *frame = *got;
        kestr::read_wsc(kestr::FrameView(frame->data(), frame->size()), m);
        return true;
    }
    std::unique_ptr<kestr::test::XmldbdProcess> db_;
    std::unique_ptr<kestr::test::PeerPort> peer_;
};

// ---- The registrar ----

TEST_F(Device, RegistrarAnswersEverySearchForTheBandItAsks) {
    start("0");
    struct Case {
        const char* what;
        Bytes tlvs;  // after the CMDU header
        uint8_t band;
    } cases[] = {
        {"2.4 GHz", hex("01 00 06 02 00 00 00 00 09  0d 00 01 00  0e 00 01 00"), 0},
        {"5 GHz, searching an enrollee", hex("0d 00 01 01  0e 00 01 01"), 1},
        {"band 7", hex("0e 00 01 07"), 0},
        {"no TLVs", {}, 0},
        {"a band TLV cut short", hex("0e 00 00"), 0},
    };
    for (const auto& c : cases) {
        Bytes search = frame_to_br0([](ieee1905Message_t* m, param_t p) {
            ap_autoconfig_search_param_t s{};
            return IEEE19051_GetPacketApAutoconfigurationSearch(m, p, s);
        });
        search.resize(22);
        search.insert(search.end(), c.tlvs.begin(), c.tlvs.end());
        search.insert(search.end(), 3, 0);
        kestr::test::capture_output(
            [&] { msgApcloneProcesSearch(7, search.data(), static_cast<int>(search.size())); });
        auto answer = peer_->receive(3s);
        ASSERT_TRUE(answer) << c.what;
        EXPECT_EQ(Bytes(answer->begin(), answer->begin() + 6), peer_->mac()) << c.what;
        EXPECT_EQ(Bytes(answer->begin() + 16, answer->begin() + 33),
                  kestr::test::cat(
                      {hex("00 08 42 42 00 80 0f 00 01 00 10 00 01"), Bytes{c.band, 0, 0, 0}}))
            << c.what;
    }
}

// An M1 as the enrollee's code makes it (`edit` applied after), sent to
// the registrar's handler; the M2 it answers with, opened with the M1's keys.
struct Answer {
    bool sent = false;
    Bytes frame;
    kestr::WscMessage m2;
    int opened = -1;
    wsc_encrypted_settings_t settings{};
};

class Registrar : public Device {
  protected:
    Answer answer(kestr::Band band, const Edit& edit) {
        wsc_configuration_t m1{};
        kestr::DhKeyPair keys = kestr::getWscConfigurationM1(&m1, band);
        if (edit)
            edit(&m1);
        const Bytes frame = frame_to_br0([&](ieee1905Message_t* m, param_t p) {
            return IEEE19051_GetPacketApAutoconfigurationWsc(m, p, &m1);
        });
        Answer a;
        int rc = -1;
        kestr::test::capture_output([&] {
            rc = msgApcloneProcesM1(9, const_cast<uint8_t*>(frame.data()),
                                    static_cast<int>(frame.size()));
        });
        if (rc != 0 || !next_wsc(&a.m2, &a.frame))
            return a;
        a.sent = true;
        kestr::Mac enrollee;
        std::memcpy(enrollee.octets.data(), m1.mac.val, 6);
        a.opened = kestr::IEEE19051_ParseTlvWscEncryptedSettings(
            a.m2.attributes, keys.get(), enrollee, &a.settings,
            kestr::tlv_value(kestr::ConstBytes(frame.data() + 22, frame.size() - 22)), a.m2.m2);
        return a;
    }
};

std::string ssid_of(const Answer& a) {
    return std::string(reinterpret_cast<const char*>(a.settings.ssid.val),
                       a.settings.ssid.valid_len);
}

TEST_F(Registrar, M1sAreAnsweredWithTheSettingsOfTheBandTheyAskFor) {
    start("0");
    const Edit none;
    struct Case {
        const char* what;
        Edit edit;
        const char* ssid;  // nullptr: no answer at all
        int rf_bands;
    } cases[] = {
        {"RF Bands 2", [](wsc_configuration_t* c) { c->rf_bands.val = 2; }, "kestrel-home-5G", 2},
        {"RF Bands 1", [](wsc_configuration_t* c) { c->rf_bands.val = 1; }, "kestrel-home-24", 1},
        {"RF Bands 3", [](wsc_configuration_t* c) { c->rf_bands.val = 3; }, "kestrel-home-24", 1},
        {"no RF Bands", [](wsc_configuration_t* c) { c->rf_bands = {}; }, "kestrel-home-24", 1},
        {"an M2", [](wsc_configuration_t* c) { c->message_type.val = MessageType_M2; }, nullptr, 0},
        {"message type 7", [](wsc_configuration_t* c) { c->message_type.val = 7; }, nullptr, 0},
    };
    for (const auto& c : cases) {
        const Answer a = answer(kestr::Band::g5(), c.edit);
        if (c.ssid == nullptr) {
            EXPECT_FALSE(a.sent) << c.what;
            EXPECT_FALSE(peer_->receive(200ms)) << c.what;
            continue;
        }
        ASSERT_TRUE(a.sent) << c.what;
        EXPECT_EQ(a.opened, 0) << c.what;
        EXPECT_EQ(ssid_of(a), c.ssid) << c.what;
        EXPECT_EQ(a.m2.attributes.rf_bands.val, c.rf_bands) << c.what;
        EXPECT_EQ(a.settings.authentication_type.val, WSC_AUTH_WPA_WPA2PSK) << c.what;
        EXPECT_EQ(a.settings.encryption_type.val, WSC_ENCR_TKIP_AES) << c.what;
    }
    // The M2 goes to the address M1 names, and two answers share nothing
    // fresh: identifier, registrar nonce, public key and IV.
    const Bytes named = hex("02 11 22 33 44 55");
    const Edit to_named = [&](wsc_configuration_t* c) { std::memcpy(c->mac.val, named.data(), 6); };
    const Answer a = answer(kestr::Band::g2p4(), to_named);
    const Answer b = answer(kestr::Band::g2p4(), to_named);
    ASSERT_TRUE(a.sent && b.sent);
    EXPECT_EQ(a.opened, 0);
    EXPECT_EQ(Bytes(a.frame.begin(), a.frame.begin() + 6), named);
    EXPECT_NE(Bytes(a.frame.begin() + 18, a.frame.begin() + 20),
              Bytes(b.frame.begin() + 18, b.frame.begin() + 20));
    EXPECT_NE(
        std::memcmp(a.m2.attributes.registrar_nonce.val, b.m2.attributes.registrar_nonce.val, 16),
        0);
    EXPECT_NE(std::memcmp(a.m2.attributes.public_key.val, b.m2.attributes.public_key.val, 192), 0);
    EXPECT_NE(std::memcmp(a.m2.attributes.encrypted_settings.val,
                          b.m2.attributes.encrypted_settings.val, 16),
              0);
}

// ---- The enrollee ----

class Enrollee : public Device {
  protected:
    // Sends the Search of `band`; the frame the peer saw.
    Bytes search(kestr::Band band) {
        int rc = -1;
        kestr::test::capture_output([&] { rc = kestr::sendSearch(band); });
        EXPECT_EQ(rc, 0);
        auto got = peer_->receive(3s);
        return got ? *got : Bytes{};
    }
    // A Response from the peer under the Search's identifier; what it printed.
    std::string respond(const Bytes& search, uint8_t role, uint8_t band, bool complete = true) {
        Bytes r = frame_to_br0([&](ieee1905Message_t* m, param_t p) {
            ap_autoconfig_response_param_t rp{role, band};
            return IEEE19051_GetPacketApAutoconfigurationResponse(m, p, rp);
        });
        std::copy(search.begin() + 18, search.begin() + 20, r.begin() + 18);
        if (!complete)
            r.erase(r.begin() + 22, r.begin() + 26);  // no supported role
        return kestr::test::mask_line_numbers(kestr::test::capture_output([&] {
                                                  msgApcloneProcessResponse(
                                                      8, r.data(), static_cast<int>(r.size()));
                                              }).out);
    }
    // The registrar's own M2 for the M1 `m1`, for `band`, sent from `src`;
    // `edit` spoils it after it was authenticated.
    Bytes m2_for(const kestr::WscMessage& m1, const Bytes& m1_frame, kestr::Band band,
                 const Edit& edit, const Bytes& src) {
        wsc_configuration_t m2{};
        kestr::getWscConfigurationM2(
            &m2, m1.attributes, band,
            kestr::tlv_value(kestr::ConstBytes(m1_frame.data() + 22, m1_frame.size() - 22)));
        if (edit)
            edit(&m2);
        Bytes frame = frame_to_br0([&](ieee1905Message_t* m, param_t p) {
            return IEEE19051_GetPacketApAutoconfigurationWsc(m, p, &m2);
        });
        std::copy(src.begin(), src.end(), frame.begin() + 6);
        return frame;
    }
    std::string deliver(Bytes frame) {
        return kestr::test::capture_output(
                   [&] { msgApcloneProcesM2(9, frame.data(), static_cast<int>(frame.size())); })
            .out;
    }
};

TEST_F(Enrollee, ResponsesAreCheckedAndAnAcceptedOneStartsM1) {
    start("1");
    const Bytes s = search(kestr::Band::g2p4());
    ASSERT_EQ(s.size(), 60u);
    struct Case {
        const char* what;
        uint8_t role, band;
        bool complete;
        const char* line;  // nullptr: accepted, M1 follows
    } cases[] = {
        {"without supported role", 0, 0, false, "err:response packet is incomplete\n"},
        {"an enrollee answering", 1, 0, true, "err:unsupport role\n"},
        {"the other band", 0, 1, true, "err:unsupport band\n"},
        {"right", 0, 0, true, nullptr},
    };
    for (const auto& c : cases) {
        const std::string out = respond(s, c.role, c.band, c.complete);
        if (c.line != nullptr) {
            EXPECT_NE(out.find(c.line), std::string::npos) << c.what << out;
            EXPECT_FALSE(peer_->receive(200ms)) << c.what;
            continue;
        }
        kestr::WscMessage m1;
        Bytes frame;
        ASSERT_TRUE(next_wsc(&m1, &frame)) << c.what;
        EXPECT_TRUE(m1.has_m1);
        EXPECT_EQ(m1.attributes.rf_bands.val, RFBands_2P4G);
    }
    EXPECT_EQ(kestr::run_state.receive_response.load(), 1);
}

// A Search lives three seconds: a Response after one and a half still
// finds it, with the watcher running.
TEST_F(Enrollee, ASearchIsAnsweredWithinItsLifetime) {
    start("1");
    IEEE19051_InitList();
    const Bytes s = search(kestr::Band::g5());
    std::this_thread::sleep_for(1600ms);
    respond(s, 0, 1);
    kestr::WscMessage m1;
    Bytes frame;
    EXPECT_TRUE(next_wsc(&m1, &frame));
    EXPECT_EQ(m1.attributes.rf_bands.val, RFBands_5G);
}

TEST_F(Enrollee, M2sAreOpenedSavedOrRefused) {
    start("1");
    const Bytes m1_frame_24 = [&] {
        respond(search(kestr::Band::g2p4()), 0, 0);
        return peer_->receive(3s).value_or(Bytes{});
    }();
    kestr::WscMessage m1;
    kestr::read_wsc(kestr::FrameView(m1_frame_24.data(), m1_frame_24.size()), &m1);
    ASSERT_TRUE(m1.has_m1);

    const Bytes other = hex("02 09 09 09 09 09");
    const Edit same;
    const kestr::Band g24 = kestr::Band::g2p4(), g5 = kestr::Band::g5();
    struct Case {
        const char* what;
        kestr::Band band;  // of the M2's RF Bands
        Edit edit;
        Bytes src;
        const char* line;   // an error line that must show, or ""
        const char* saved;  // the band an entry is added under, or nullptr
    } cases[] = {
        {"the registrar's M2", g24, same, peer_->mac(), "", "BAND_2P4G"},
        {"the same M2 again", g24, same, peer_->mac(), "", "BAND_2P4G"},
        {"RF Bands 2 for a 2.4 GHz M1: the M2 decides", g5, same, peer_->mac(), "", "BAND_5G"},
        {"from another sender", g24, same, other, "", nullptr},
        {"another enrollee nonce", g24,
         [](wsc_configuration_t* c) { c->enrollee_nonce.val[0] ^= 1; }, peer_->mac(), "", nullptr},
        {"a spoiled Authenticator", g24,
         [](wsc_configuration_t* c) { c->authenticator.val[7] ^= 1; }, peer_->mac(),
         "Err:IEEE19051_ParseTlvWscEncryptedSettings\n", nullptr},
        {"a spoiled ciphertext", g24,
         [](wsc_configuration_t* c) { c->encrypted_settings.val[20] ^= 1; }, peer_->mac(),
         "Err:IEEE19051_ParseTlvWscEncryptedSettings\n", nullptr},
        {"no Registrar Nonce", g24, [](wsc_configuration_t* c) { c->registrar_nonce = {}; },
         peer_->mac(), "Err:IEEE19051_ParseTlvWscEncryptedSettings\n", nullptr},
        {"not an M2", g24, [](wsc_configuration_t* c) { c->message_type.val = MessageType_M1; },
         peer_->mac(), "", nullptr},
    };
    int count[2] = {0, 0};
    for (const auto& c : cases) {
        const std::string out = deliver(m2_for(m1, m1_frame_24, c.band, c.edit, c.src));
        if (c.line[0] != '\0')
            EXPECT_NE(out.find(c.line), std::string::npos) << c.what << out;
        else
            EXPECT_EQ(out.find("err:"), std::string::npos) << c.what << out;
        if (c.saved != nullptr)
            ++count[std::string(c.saved) == "BAND_5G"];
        for (int five = 0; five < 2; ++five) {
            const std::string base =
                five ? "/runtime/apcloning/BAND_5G" : "/runtime/apcloning/BAND_2P4G";
            EXPECT_EQ(db_get(base + "/count"), count[five] ? std::to_string(count[five]) : "")
                << c.what;
        }
    }
}

// How a run ends: the expiry of its Search or M1 request and what came
// before it decide the outcome line and the process state.
TEST_F(Enrollee, ExpiryDecidesTheOutcome) {
    start("1");
    const std::string red = "err:kestrd_apclone-requestTimeout-N|\x1b[1;35;40;1m",
                      green = "kestrd_apclone-requestTimeout-N|\x1b[1;32;40;1m";
    struct Case {
        const char* what;
        int type, response, m1s, m2;
        std::string line;  // "": nothing printed
        int state;
    } cases[] = {
        {"Search, no Response", 7, 0, 0, 0, red + "exit:send search, but no response\n", 1},
        {"Search, Responses but no M1", 7, 1, 0, 0, "exit:no registration started after search\n",
         1},
        {"Search after an M1", 7, 1, 1, 0, "", 0},
        {"M1 without M2", 9, 1, 1, 0, "exit:send m1 time out\n", 1},
        {"M1 after an M2", 9, 1, 1, 1, green + "exit:processing_completed\n", 2},
    };
    for (const auto& c : cases) {
        kestr::run_state.process_completed = 0;
        kestr::run_state.receive_response = c.response;
        kestr::run_state.m1_recorded = c.m1s;
        kestr::run_state.M2_decrypt_success = c.m2;
        IEEE19051_Info_t request{};
        request.mid = 77;
        request.msgType = c.type;
        request.freqBand = 1;
        IEEE19051_AddRequestRecord(request);
        const std::string out = kestr::test::mask_line_numbers(
            kestr::test::capture_output([&] { requestTimeout(&request); }).out);
        EXPECT_EQ(IEEE19051_ListEmpty(), 1) << c.what;
        EXPECT_EQ(kestr::run_state.process_completed.load(), c.state) << c.what;
        EXPECT_TRUE(c.line.empty() ? out.empty() : out.find(c.line) != std::string::npos)
            << c.what << out;
    }
    EXPECT_EQ(db_get("/runtime/apcloning/BAND_5G/done"), "1");
    EXPECT_EQ(db_get("/runtime/apcloning/BAND_2P4G/done"), "");
}

// The band each RF Bands value and each command word stands for.
TEST(Band, WireValuesAndCommandWords) {
    using kestr::Band;
    const Band g24 = Band::g2p4(), g5 = Band::g5();
    struct {
        u_int8_t rf_bands;
        Band asked_by_m1, of_m2;
    } rf[] = {{0, g24, g5}, {1, g24, g24}, {2, g5, g5}, {3, g24, g5}};
    for (const auto& r : rf) {
        const wsc_configuration_uint8_t record{1, r.rf_bands};
        EXPECT_TRUE(kestr::band_asked_by_m1(record) == r.asked_by_m1) << int(r.rf_bands);
        EXPECT_TRUE(kestr::band_of_m2(record) == r.of_m2) << int(r.rf_bands);
    }
    const std::pair<const char*, int> words[] = {{"apclone_24G", 0},   {"apclone_24Gx", 0},
                                                 {"apclone_5Gxyz", 1}, {"apclone_5", -1},
                                                 {"apclone_24", -1},   {"apclone_deamon", -1}};
    for (const auto& [word, band] : words) {
        const auto got = kestr::band_of_command(word);
        EXPECT_EQ(got ? got->ieee1905() : -1, band) << word;
    }
}

}  // namespace
