#include "tests/support/capture.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <stdexcept>

namespace kestr::test {
namespace {

std::string slurp(std::FILE* f) {
    std::string text;
    std::rewind(f);
    char chunk[4096];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0)
        text.append(chunk, n);
    return text;
}

class Redirect {
  public:
    Redirect(int fd, std::FILE* to) : fd_(fd), saved_(dup(fd)) {
        if (saved_ < 0 || dup2(fileno(to), fd) < 0)
            throw std::runtime_error("redirect failed");
    }
    ~Redirect() {
        dup2(saved_, fd_);
        close(saved_);
    }

  private:
    int fd_;
    int saved_;
};

}  // namespace

Captured capture_output(const std::function<void()>& fn) {
    std::FILE* out = std::tmpfile();
    std::FILE* err = std::tmpfile();
    if (out == nullptr || err == nullptr)
        throw std::runtime_error("tmpfile failed");
    std::fflush(stdout);
    std::fflush(stderr);
    {
        Redirect r1(1, out);
        Redirect r2(2, err);
        fn();
        std::fflush(stdout);
        std::fflush(stderr);
    }
    Captured c{slurp(out), slurp(err)};
    std::fclose(out);
    std::fclose(err);
    return c;
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
