#include "tests/support/capture.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <regex>

namespace kestr::test {

// Standard output and standard error go to temporary files while `fn` runs.
Captured capture_output(const std::function<void()>& fn) {
    std::FILE* files[2] = {std::tmpfile(), std::tmpfile()};
    int saved[2] = {-1, -1};
    std::fflush(stdout);
    std::fflush(stderr);
    for (int i = 0; i < 2; ++i) {
        if (files[i] == nullptr || (saved[i] = dup(i + 1)) < 0 || dup2(fileno(files[i]), i + 1) < 0)
            std::abort();  // a test that cannot see its output must not pass
    }
    fn();
    std::fflush(stdout);
    std::fflush(stderr);
    std::string text[2];
    for (int i = 0; i < 2; ++i) {
        dup2(saved[i], i + 1);
        close(saved[i]);
        std::rewind(files[i]);
        char chunk[4096];
        for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, files[i])) > 0;)
            text[i].append(chunk, n);
        std::fclose(files[i]);
    }
    return {text[0], text[1]};
}

std::string error_line(const std::string& module, const std::string& function, int line,
                       const std::string& body) {
    return "err:" + module + "-" + function + "-" + std::to_string(line) + "|\033[1;35;40;1m" +
           body + "\033[0m";
}

std::string progress_line(const std::string& module, const std::string& function, int line,
                          const std::string& body) {
    return module + "-" + function + "-" + std::to_string(line) + "|\033[1;32;40;1m" + body +
           "\033[0m";
}

std::string mask_line_numbers(const std::string& text) {
    static const std::regex number(R"(-[0-9]+\|\x1b\[1;3)");
    return std::regex_replace(text, number, "-N|\x1b[1;3");
}

}  // namespace kestr::test
