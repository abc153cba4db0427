// Captures what a piece of code writes to standard output and standard error,
// for exact-text assertions on reporting lines.
#pragma once

#include <functional>
#include <string>

namespace kestr::test {

struct Captured {
    std::string out;
    std::string err;
};

// Runs `fn` with file descriptors 1 and 2 redirected to temporary files.
// Threads started by `fn` that are still writing after it returns are not
// covered.
Captured capture_output(const std::function<void()>& fn);

// The reporting lines as they appear on standard output.
std::string error_line(const std::string& module, const std::string& function, int line,
                       const std::string& body);
std::string progress_line(const std::string& module, const std::string& function, int line,
                          const std::string& body);

// Reporting lines with their line numbers masked ("-<n>|" becomes "-N|"), so
// tests do not depend on where a message sits in its source file.
std::string mask_line_numbers(const std::string& text);

}  // namespace kestr::test
