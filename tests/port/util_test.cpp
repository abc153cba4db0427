// MAC text in both directions, the descriptor wait and the reporting lines.
#include <gtest/gtest.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "port/common/common.h"
#include "port/common/report.h"
#include "port/util.h"
#include "tests/support/capture.h"

namespace {

using kestr::test::capture_output;
using kestr::test::error_line;
using kestr::test::mask_line_numbers;

const std::string kNotAMac =
    "INI entry da doesn't seem to be a valid MAC address - xx:xx:xx:xx:xx:xx\n";

std::string bytes_of(const struct ether_addr& a) {
    return std::string(a.ether_addr_octet, a.ether_addr_octet + 6);
}

TEST(MacText, BothDirections) {
    // Written unpadded; the longest text fills 18 bytes, 17 are refused.
    const std::pair<const char*, const char*> written[] = {
        {"\x00\x0A\x1B\x2C\x3D\x4E", "0:a:1b:2c:3d:4e"},
        {"\xFF\xFF\xFF\xFF\xFF\xFF", "ff:ff:ff:ff:ff:ff"}};
    for (const auto& [bytes, text] : written) {
        struct ether_addr a;
        std::memcpy(a.ether_addr_octet, bytes, 6);
        char buf[18];
        EXPECT_EQ(mac_etheraddr_to_str(&a, buf, sizeof buf), 0);
        EXPECT_STREQ(buf, text);
    }
    char buf[17] = "untouched";
    capture_output([&] {
        EXPECT_EQ(mac_etheraddr_to_str(reinterpret_cast<struct ether_addr*>(buf), buf, 17), -1);
    });
    EXPECT_STREQ(buf, "untouched");

    // Read with one or two digits per byte, either case; a refusal leaves the
    // address alone and says so in the lines a user reads.
    const std::string sscanf_error =
        mask_line_numbers(error_line("util", "mac_str_to_etheraddr", 0, "sscanf error\n"));
    // clang-format off
    const std::pair<const char*, bool> read[] = {
        {"01:80:C2:00:00:13", true},  {"1:80:c2:0:0:13", true},   {"1:80:c2:0:0:13 tail", true},
        {"01-80-C2-00-00-13", false}, {"01:80:c2:00:00", false},  {"001:80:c2:0:0:13", false},
        {"", false},                  {"zz:80:c2:0:0:13", false}, {nullptr, false}};
    // clang-format on
    for (const auto& [text, ok] : read) {
        struct ether_addr a;
        std::memset(&a, 0xAA, sizeof a);
        const char* what = text ? text : "(null)";
        int rc = 0;
        const auto out = capture_output([&, text = text] { rc = mac_str_to_etheraddr(text, &a); });
        EXPECT_EQ(rc, ok ? 0 : -1) << what;
        EXPECT_EQ(bytes_of(a),
                  ok ? std::string("\x01\x80\xC2\x00\x00\x13", 6) : std::string(6, '\xAA'))
            << what;
        EXPECT_EQ(mask_line_numbers(out.out), ok ? "" : (text ? sscanf_error : "") + kNotAMac)
            << what;
    }
}

TEST(ReadTimeout, Edges) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    EXPECT_EQ(read_timeout(fds[0], 0), 0);  // no wait at all, even when idle
    alarm(20);                              // a wait that never ends kills the test
    errno = EINTR;                          // left by an earlier call: no reason to wait again
    EXPECT_EQ(read_timeout(fds[0], 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    ASSERT_EQ(write(fds[1], "x", 1), 1);
    EXPECT_EQ(read_timeout(fds[0], 5), 0);
    close(fds[0]);
    close(fds[1]);
    // Not a descriptor select may watch: an error at once, not a time-out.
    for (const int bad : {fds[0], -1, FD_SETSIZE + 10}) {
        errno = 0;
        EXPECT_EQ(read_timeout(bad, 1), -1) << bad;
        EXPECT_NE(errno, ETIMEDOUT) << bad;
    }
    alarm(0);
}

// A body comes out whole and verbatim (never used as a format) at any length,
// also one that exactly fills, or overflows by one, the buffer it is formatted
// in (512 bytes).
TEST(Report, LinesComeOutWhole) {
    for (const size_t n : {5, 510, 511, 512, 513, 4000}) {
        const std::string body = "%s%n" + std::string(n - 5, 'x') + "!";
        for (const auto kind : {kestr::LineKind::Error, kestr::LineKind::Progress}) {
            const auto c = capture_output(
                [&] { kestr::report_line(kind, "mod", "fn", 42, "%s", body.c_str()); });
            EXPECT_EQ(c.out, kind == kestr::LineKind::Error
                                 ? error_line("mod", "fn", 42, body)
                                 : kestr::test::progress_line("mod", "fn", 42, body))
                << n;
        }
    }
}

}  // namespace
