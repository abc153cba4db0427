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
void say_progress() { KESTR_INFO("sendM1\n"); }

TEST(Report, ErrorLineFrameAndColour) {
    const auto c = capture_output([] { say_error("malloc error\n"); });
    EXPECT_EQ(c.out, "err:report_test-say_error-" + std::to_string(g_error_line) +
                         "|\x1b[1;35;40;1mmalloc error\n\x1b[0m");
    EXPECT_EQ(c.err, "");
}

TEST(Report, ProgressLineFrameAndColour) {
    const auto c = capture_output([] { say_progress(); });
    EXPECT_EQ(kestr::test::mask_line_numbers(c.out),
              "report_test-say_progress-N|\x1b[1;32;40;1msendM1\n\x1b[0m");
}

TEST(Report, BodyWithPercentSignsIsPrintedVerbatim) {
    const auto c = capture_output([] { say_error("100% %s %n %d"); });
    EXPECT_NE(c.out.find("|\x1b[1;35;40;1m100% %s %n %d\x1b[0m"), std::string::npos) << c.out;
}

TEST(Report, LongBodyIsNotCut) {
    const std::string body(5000, 'x');
    const auto c = capture_output([&] { say_error(body.c_str()); });
    EXPECT_NE(c.out.find(body + "\x1b[0m"), std::string::npos);
}

}  // namespace
