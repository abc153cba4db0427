// Reporting lines shared by every module of kestrd.
//
// An error line is
//     "err:" MODULE "-" FUNCTION "-" LINE "|" ESC "[1;35;40;1m" BODY ESC "[0m"
// and a progress line the same without "err:" and in green (ESC "[1;32;40;1m").
// MODULE is the source file's base name without directory or extension
// ("util", "19051_parse"), FUNCTION the enclosing function's own name.
// The body is printed exactly as formatted; a trailing "\n" belongs to the
// body and therefore comes before the colour reset.
#pragma once

#include <string_view>

namespace kestr {

// "protocol/19051_parse.cpp" -> "19051_parse", usable in constant expressions.
constexpr std::string_view module_name(std::string_view path) {
    const auto slash = path.find_last_of('/');
    if (slash != std::string_view::npos)
        path.remove_prefix(slash + 1);
    const auto dot = path.find_first_of('.');
    if (dot != std::string_view::npos)
        path.remove_suffix(path.size() - dot);
    return path;
}

enum class LineKind { Error, Progress };

// Writes one reporting line to standard output with a single stdio call, so
// lines of different threads never interleave.
void report_line(LineKind kind, std::string_view module, const char* function, int line,
                 const char* format, ...) __attribute__((format(printf, 5, 6)));

}  // namespace kestr

// A file that carries part of another module's functions names that module
// before including this header:  #define KESTR_REPORT_MODULE "19051_parse"
#ifdef KESTR_REPORT_MODULE
#define KESTR_MODULE (::std::string_view(KESTR_REPORT_MODULE))
#else
#define KESTR_MODULE (::kestr::module_name(__FILE__))
#endif

// KESTR_ERR("role is not RoleTypeRegistrar\n"); KESTR_INFO("sendM1\n");
#define KESTR_ERR(...) \
    ::kestr::report_line(::kestr::LineKind::Error, KESTR_MODULE, __func__, __LINE__, __VA_ARGS__)
// An error line in the name of function `fn`, for code that reports on
// behalf of the function it stands in for.
#define KESTR_ERR_IN(fn, ...) \
    ::kestr::report_line(::kestr::LineKind::Error, KESTR_MODULE, fn, __LINE__, __VA_ARGS__)
#define KESTR_INFO(...) \
    ::kestr::report_line(::kestr::LineKind::Progress, KESTR_MODULE, __func__, __LINE__, __VA_ARGS__)
