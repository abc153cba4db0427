#include "port/common/report.h"

#include <gtest/gtest.h>

#include "tests/support/capture.h"

namespace {

using kestr::test::capture_output;

static_assert(kestr::module_name("protocol/19051_parse.cpp") == "19051_parse");
static_assert(kestr::module_name("/abs/path/port/util.cpp") == "util");
static_assert(kestr::module_name("debug.cpp") == "debug");
static_assert(kestr::module_name("noext") == "noext");

int g_error_line = 0;
void say_error(const char* what) {
    g_error_line = __LINE__ + 1;
    KESTR_ERR("%s", what);
}
void say_progress() {
    KESTR_INFO("sendM1\n");
}

// Bodies go out verbatim: never a format, never cut.
TEST(Report, ErrorLineFrameAndColour) {
    const std::string long_body(5000, 'x');
    for (const std::string body : {"malloc error\n", "100% %s %n %d", long_body.c_str()}) {
        const auto c = capture_output([&] { say_error(body.c_str()); });
        EXPECT_EQ(c.out, "err:report_test-say_error-" + std::to_string(g_error_line) +
                             "|\x1b[1;35;40;1m" + body + "\x1b[0m");
        EXPECT_EQ(c.err, "");
    }
}

TEST(Report, ProgressLineFrameAndColour) {
    const auto c = capture_output([] { say_progress(); });
    EXPECT_EQ(kestr::test::mask_line_numbers(c.out),
              "report_test-say_progress-N|\x1b[1;32;40;1msendM1\n\x1b[0m");
}

}  // namespace
