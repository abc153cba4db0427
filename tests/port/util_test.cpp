#include "port/util.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "port/common/common.h"
#include "tests/support/capture.h"

namespace {

using kestr::test::capture_output;
using kestr::test::mask_line_numbers;

const std::string kNotAMac =
    "INI entry da doesn't seem to be a valid MAC address - xx:xx:xx:xx:xx:xx\n";

TEST(MacText, Formatting) {
    struct Case {
        std::array<uint8_t, 6> bytes;
        int buflen;
        int result;
        const char* text;
        const char* out;
    } cases[] = {
        {{0x00, 0x0A, 0x1B, 0x2C, 0x3D, 0x4E}, 18, 0, "0:a:1b:2c:3d:4e", ""},
        {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, 18, 0, "ff:ff:ff:ff:ff:ff", ""},
        {{0x01, 0x80, 0xC2, 0x00, 0x00, 0x13}, 50, 0, "1:80:c2:0:0:13", ""},
        {{0, 0, 0, 0, 0, 0},
         17,
         -1,
         "untouched",
         "err:util-mac_etheraddr_to_str-N|\x1b[1;35;40;1mparameter is error\n\x1b[0m"},
    };
    for (const auto& c : cases) {
        struct ether_addr a;
        std::memcpy(a.ether_addr_octet, c.bytes.data(), 6);
        char buf[64] = "untouched";
        int rc = 0;
        const auto out = capture_output([&] { rc = mac_etheraddr_to_str(&a, buf, c.buflen); });
        EXPECT_EQ(rc, c.result) << c.text;
        EXPECT_STREQ(buf, c.text);
        EXPECT_EQ(mask_line_numbers(out.out), c.out);
    }
    char buf[18];
    const auto out = capture_output([&] {
        EXPECT_EQ(mac_etheraddr_to_str(nullptr, buf, 18), -1);
        EXPECT_EQ(mac_etheraddr_to_str(reinterpret_cast<struct ether_addr*>(buf), nullptr, 18), -1);
    });
    EXPECT_EQ(std::count(out.out.begin(), out.out.end(), '|'), 2);
}

TEST(MacText, Parsing) {
    const std::array<uint8_t, 6> mcast{0x01, 0x80, 0xC2, 0x00, 0x00, 0x13};
    struct Case {
        const char* text;
        int result;
        bool sscanf_line;
    } cases[] = {
        {"01:80:C2:00:00:13", 0, false},
        {"1:80:c2:0:0:13", 0, false},
        {"01:80:c2:00:00:13 trailing", 0, false},
        {"01:80:c2:00:00:13:ff", 0, false},
        {"01-80-C2-00-00-13", -1, true},
        {"01:80:c2:00:00", -1, true},
        {"", -1, true},
        {"zz:80:c2:00:00:13", -1, true},
    };
    for (const auto& c : cases) {
        struct ether_addr a;
        std::memset(&a, 0xAA, sizeof a);
        int rc = 0;
        const auto out = capture_output([&] { rc = mac_str_to_etheraddr(c.text, &a); });
        EXPECT_EQ(rc, c.result) << c.text;
        if (c.result == 0) {
            EXPECT_EQ(0, std::memcmp(a.ether_addr_octet, mcast.data(), 6)) << c.text;
            EXPECT_EQ(out.out, "");
        } else {
            for (auto b : a.ether_addr_octet)
                EXPECT_EQ(b, 0xAA) << "address changed: " << c.text;
            EXPECT_EQ(
                mask_line_numbers(out.out),
                "err:util-mac_str_to_etheraddr-N|\x1b[1;35;40;1msscanf error\n\x1b[0m" + kNotAMac);
        }
    }
    const auto out = capture_output([] {
        struct ether_addr a;
        EXPECT_EQ(mac_str_to_etheraddr(nullptr, &a), -1);
        EXPECT_EQ(mac_str_to_etheraddr("1:2:3:4:5:6", nullptr), -1);
    });
    EXPECT_EQ(out.out, kNotAMac + kNotAMac);
}

TEST(MacText, RoundTrip) {
    for (int seed = 0; seed < 256; ++seed) {
        struct ether_addr a, b;
        for (int i = 0; i < 6; ++i)
            a.ether_addr_octet[i] = static_cast<uint8_t>(seed * (i + 7));
        char text[kMacTextSize];
        ASSERT_EQ(mac_etheraddr_to_str(&a, text, sizeof text), 0);
        ASSERT_EQ(mac_str_to_etheraddr(text, &b), 0);
        EXPECT_EQ(0, std::memcmp(&a, &b, 6)) << text;
    }
}

TEST(ReadTimeout, ZeroWaitReadyIdleAndBadDescriptor) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    EXPECT_EQ(read_timeout(fds[0], 0), 0);  // no wait at all, even when idle

    errno = 0;
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(read_timeout(fds[0], 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(900));

    ASSERT_EQ(write(fds[1], "x", 1), 1);
    EXPECT_EQ(read_timeout(fds[0], 5), 0);
    close(fds[0]);
    close(fds[1]);

    errno = 0;
    EXPECT_EQ(read_timeout(fds[0], 1), -1);  // closed descriptor: an error, not a time-out
    EXPECT_NE(errno, ETIMEDOUT);
}

TEST(Random, OneToHundred) {
    for (int i = 0; i < 200; ++i) {
        const int r = get_random_number();
        EXPECT_GE(r, 1);
        EXPECT_LE(r, 100);
    }
}

}  // namespace
