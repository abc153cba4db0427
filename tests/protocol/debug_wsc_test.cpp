// The console formats of WSC attributes, messages and decrypted settings,
// exactly, and what they do with attributes and records that claim more
// than they hold.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <thread>

#include "protocol/debug.h"
#include "tests/support/wsc_samples.h"

namespace {

using kestr::test::capture_output;
using kestr::test::hex;
using kestr::test::mask_line_numbers;
using kestr::test::masked_error;
using kestr::test::run;
using kestr::test::set_bytes;
using kestr::test::zeroed_config;
using Bytes = std::vector<uint8_t>;

const std::string kSep = std::string(62, '=') + "\n";

std::string printed(const std::function<void()>& fn) {
    return mask_line_numbers(capture_output(fn).out);
}

// The bytes of a hex text as a print_packet line.
std::string line(const std::string& hex_text) {
    std::string out;
    for (const uint8_t b : hex(hex_text))
        out += " " + run(b, 1).substr(0, 2);
    return out + "\n";
}

std::string block(const std::string& head, const std::string& bytes) {
    return head + kSep + "tlv:" + bytes + kSep;
}

// Each TLV lies in a heap buffer of exactly its size, so the sanitizer build
// catches a read past what the TLV holds.
std::string print_tlv(Bytes tlv) {
    auto buf = std::make_unique<uint8_t[]>(tlv.size());
    std::copy(tlv.begin(), tlv.end(), buf.get());
    return printed([&] { print_tlv_wsc_packet(reinterpret_cast<ieee1905TLV_t*>(buf.get())); });
}

TEST(DebugWsc, AttributesOfAWscTlv) {
    const std::string version =
        block("tlv_type:104a, Version, tlv_len:1\n", " 10 4a | 00 01 | 10\n");
    const std::string type =
        block("tlv_type:1022, Message Type, tlv_len:1\n", " 10 22 | 00 01 | 04\n");
    const std::pair<std::string, std::string> cases[] = {
        {"11 00 0a 10 4a 00 01 10 10 22 00 01 04", version + type},
        // Names keep their trailing blank; an unnamed type prints an empty name.
        {"11 00 12 10 20 00 06 00 0a 1b 2c 3d 4e 10 65 00 00 ff ff 00 00",
         block("tlv_type:1020, MAC Address , tlv_len:6\n", " 10 20 | 00 06 | 00 0a 1b 2c 3d 4e\n") +
             block("tlv_type:1065, , tlv_len:0\n", " 10 65 | 00 00 |\n") +
             block("tlv_type:ffff, , tlv_len:0\n", " ff ff | 00 00 |\n")},
        {"11 00 00", ""},
        // An attribute claiming more than the TLV has left ends the printout,
        // and so does a header cut short.
        {"11 00 0b 10 4a 00 01 10 10 22 00 05 04 00", version},
        {"11 00 07 10 4a 00 01 10 10 22", version},
        {"11 00 01 10", ""},
        // The TLV's own length bounds the walk, not the bytes that follow it.
        {"11 00 05 10 4a 00 01 10 10 22 00 01 04", version},
    };
    for (const auto& [tlv, text] : cases)
        EXPECT_EQ(print_tlv(hex(tlv)), text) << tlv;
    EXPECT_EQ(printed([] { print_tlv_wsc_packet(nullptr); }), "");
}

TEST(DebugWsc, SingleAttribute) {
    const std::pair<int, std::string> cases[] = {
        {7, " 10 4a | 00 03 | 10 20 30\n"},
        {5, " 10 4a | 00 03 | 10\n"},
        {4, " 10 4a | 00 03 |\n"},
        // A buffer shorter than a header shows the header bytes it has.
        {3, " 10 4a | 00\n"},
        {2, " 10 4a |\n"},
        {1, " 10\n"},
        {0, "\n"},
        {-5, "\n"},
    };
    const Bytes attr = hex("10 4a 00 03 10 20 30");
    for (const auto& [len, text] : cases) {
        const int n = len;
        auto buf = std::make_unique<uint8_t[]>(static_cast<size_t>(std::max(n, 0)));
        std::copy(attr.begin(), attr.begin() + std::max(n, 0), buf.get());
        EXPECT_EQ(printed([&] { print_tlv_wsc_packet_single(buf.get(), n); }), text) << n;
    }
    EXPECT_EQ(printed([] { print_tlv_wsc_packet_single(nullptr, 4); }), "\n");
}

TEST(DebugWsc, MessageRecords) {
    const std::string no_serial =
        masked_error("debug", "print_wsc_configuration", "serial_number not found\n");
    wsc_configuration_t mac_only = zeroed_config();
    set_bytes(mac_only.mac, hex("02 00"));  // printed as the six bytes of an address
    mac_only.mac.val[5] = 0x01;
    set_bytes(mac_only.serial_number, hex("53 4e"));
    wsc_configuration_t oversized = zeroed_config();
    set_bytes(oversized.serial_number, {});
    set_bytes(oversized.authenticator, hex(run(0x30, 8)));
    oversized.authenticator.valid_len = 0xFFFF;
    set_bytes(oversized.public_key, Bytes(192, 0x77));
    oversized.public_key.valid_len = 500;
    set_bytes(oversized.UUIDE, hex("01"));
    oversized.UUIDE.valid = 2;
    std::string key_line;
    for (int i = 0; i < 192; ++i)
        key_line += " 77";

    const std::pair<wsc_configuration_t, std::string> cases[] = {
        {zeroed_config(), no_serial},
        {mac_only, " 02 00 00 00 00 01\n"},
        // The error line falls between the attributes before and after it.
        {kestr::test::sample_m2(), line(run(0xA0, 16)) + line(run(0xB0, 16)) + line("01 02 03 04") +
                                       no_serial + line("80 00 00 01") + line(run(0xC0, 20)) +
                                       line(run(0xE0, 8))},
        // Lengths beyond a record's array print the array and no more.
        {oversized, key_line + "\n" + line(run(0x30, 8))},
    };
    for (const auto& c : cases)
        EXPECT_EQ(printed([&] { print_wsc_configuration(c.first); }), c.second);
}

TEST(DebugWsc, DecryptedSettings) {
    wsc_encrypted_settings_t s{};
    set_bytes(s.ssid, hex("73 65 63 72 65 74"));
    set_bytes(s.network_key, hex("70 61 73 73 77 6f 72 64"));
    s.authentication_type = {1, 0x20};
    EXPECT_EQ(printed([&] { print_wsc_encrypted_settings(s); }), "");

    set_bytes(s.mac, hex("00 0a 1b 2c 3d 4e"));
    set_bytes(s.vendor_extension, hex(run(0x00, 17)));
    set_bytes(s.key_wrap_authenticator, hex(run(0xF0, 8)));
    s.key_wrap_authenticator.valid_len = 999;
    EXPECT_EQ(printed([&] { print_wsc_encrypted_settings(s); }),
              "mac\n0000 00 0a 1b 2c 3d 4e\n"
              "vendor_extension\n0000 " +
                  run(0x00, 15) + "0f\n0010 10\n" +
                  "key_wrap_authenticator\n0000 f0 f1 f2 f3 f4 f5 f6 f7\n");
}

// Printouts of two threads at once: each comes out whole.
TEST(DebugWsc, ConcurrentPrintoutsStayWhole) {
    const Bytes m1 = kestr::test::sample_m1_tlv(), m2 = kestr::test::sample_m2_tlv();
    const std::string one = print_tlv(m1), two = print_tlv(m2);
    constexpr int kRounds = 200;
    const std::string out = printed([&] {
        auto printer = [](Bytes tlv) {
            for (int i = 0; i < kRounds; ++i)
                print_tlv_wsc_packet(reinterpret_cast<ieee1905TLV_t*>(tlv.data()));
        };
        std::thread a(printer, m1), b(printer, m2);
        a.join();
        b.join();
    });
    int ones = 0, twos = 0;
    for (size_t at = 0; at < out.size();) {
        if (out.compare(at, one.size(), one) == 0) {
            at += one.size(), ++ones;
        } else if (out.compare(at, two.size(), two) == 0) {
            at += two.size(), ++twos;
        } else {
            ADD_FAILURE() << "printouts mixed at byte " << at;
            break;
        }
    }
    EXPECT_EQ(ones, kRounds);
    EXPECT_EQ(twos, kRounds);
}

}  // namespace
