// Hex text to bytes and back, for wire vectors written as a capture shows
// them: "11 00 0A 10 4A ...". Blanks are ignored.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace kestr::test {

inline std::vector<uint8_t> hex(const std::string& text) {
    std::vector<uint8_t> out;
    std::string digits;
    for (char c : text) {
        if (c != ' ')
            digits += c;
    }
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    }
    return out;
}

inline std::string to_hex(const uint8_t* p, size_t n) {
    std::string s;
    char b[4];
    for (size_t i = 0; i < n; ++i) {
        std::snprintf(b, sizeof b, i == 0 ? "%02x" : " %02x", p[i]);
        s += b;
    }
    return s;
}

inline std::string to_hex(const std::vector<uint8_t>& v) {
    return to_hex(v.data(), v.size());
}

}  // namespace kestr::test
