// Hex text to bytes and back, for wire vectors written as they are read
// in a capture: "11 00 0A 10 4A ...". Blanks are ignored.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestr::test {

inline std::vector<uint8_t> hex(const std::string& text) {
    std::vector<uint8_t> out;
    int high = -1;
    for (char c : text) {
        int v;
        if (c >= '0' && c <= '9') {
            v = c - '0';
        } else if (c >= 'a' && c <= 'f') {
            v = c - 'a' + 10;
        } else if (c >= 'A' && c <= 'F') {
            v = c - 'A' + 10;
        } else if (c == ' ' || c == '\n') {
            continue;
        } else {
            throw std::invalid_argument("not hex: " + text);
        }
        if (high < 0) {
            high = v;
        } else {
            out.push_back(static_cast<uint8_t>(high << 4 | v));
            high = -1;
        }
    }
    if (high >= 0)
        throw std::invalid_argument("odd hex: " + text);
    return out;
}

inline std::string to_hex(const uint8_t* p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        if (i != 0)
            s += ' ';
        s += digits[p[i] >> 4];
        s += digits[p[i] & 15];
    }
    return s;
}

inline std::string to_hex(const std::vector<uint8_t>& v) {
    return to_hex(v.data(), v.size());
}

}  // namespace kestr::test
