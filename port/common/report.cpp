#include "port/common/report.h"

#include <cstdarg>
#include <cstdio>
#include <string>

namespace kestr {

void report_line(LineKind kind, std::string_view module, const char* function, int line,
                 const char* format, ...) {
    // Format the body first: it may contain '%' from its arguments and is then
    // printed through "%s", never used as a format itself.
    char small[512];
    std::string large;
    const char* body = small;

    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int n = std::vsnprintf(small, sizeof small, format, args);
    va_end(args);
    if (n < 0) {
        small[0] = '\0';
    } else if (static_cast<size_t>(n) >= sizeof small) {
        large.resize(static_cast<size_t>(n) + 1);
        std::vsnprintf(large.data(), large.size(), format, again);
        large.resize(static_cast<size_t>(n));
        body = large.c_str();
    }
    va_end(again);

    const int mlen = static_cast<int>(module.size());
    if (kind == LineKind::Error) {
        std::printf("err:%.*s-%s-%d|\033[1;35;40;1m%s\033[0m", mlen, module.data(), function, line,
                    body);
    } else {
        std::printf("%.*s-%s-%d|\033[1;32;40;1m%s\033[0m", mlen, module.data(), function, line,
                    body);
    }
}

}  // namespace kestr
