// Helpers shared by the message-layer tests: hex vectors, addresses and
// frame buffers of exactly one CMDU, so AddressSanitizer sees any read past it.
#pragma once

#include <net/ethernet.h>

#include <cctype>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "protocol/19051_frame.h"
#include "tests/support/capture.h"

namespace kestr::test {

// "01 80 c2" -> {0x01, 0x80, 0xC2}; blanks, commas and '|' are ignored.
inline std::vector<uint8_t> hex(const std::string& text) {
    std::vector<uint8_t> out;
    std::string digits;
    for (const char c : text) {
        if (std::isxdigit(static_cast<unsigned char>(c)))
            digits += c;
    }
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return out;
}

// "00 0a 1b" for the bytes 00 0A 1B.
inline std::string to_hex(const uint8_t* p, size_t n) {
    static const char* const digits = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += i == 0 ? "" : " ";
        s += digits[p[i] >> 4];
        s += digits[p[i] & 0xF];
    }
    return s;
}
inline std::string to_hex(const std::vector<uint8_t>& v) {
    return to_hex(v.data(), v.size());
}

inline void append(std::vector<uint8_t>& to, const std::vector<uint8_t>& more) {
    to.insert(to.end(), more.begin(), more.end());
}

inline std::vector<uint8_t> cat(std::initializer_list<std::vector<uint8_t>> parts) {
    std::vector<uint8_t> out;
    for (const auto& p : parts)
        append(out, p);
    return out;
}

inline struct ether_addr mac(const std::vector<uint8_t>& bytes) {
    struct ether_addr a {};
    std::memcpy(a.ether_addr_octet, bytes.data(), std::min<size_t>(bytes.size(), 6));
    return a;
}

inline struct ether_addr mac(const std::string& text) {
    return mac(hex(text));
}

inline param_t make_param(const std::string& da, const std::string& sa, int mid) {
    param_t p{};
    p.da = mac(da);
    p.sa = mac(sa);
    p.mid = mid;
    return p;
}

// One CMDU on the heap, zero-filled, exactly 1514 bytes long.
struct Frame {
    std::vector<uint8_t> bytes = std::vector<uint8_t>(sizeof(ieee1905Message_t), 0);
    ieee1905Message_t* msg() { return reinterpret_cast<ieee1905Message_t*>(bytes.data()); }
    uint8_t* data() { return bytes.data(); }
    std::vector<uint8_t> head(int n) const {
        return std::vector<uint8_t>(bytes.begin(), bytes.begin() + n);
    }
};

// A frame whose content area holds `content` after a type-9 header.
inline Frame frame_with_content(const std::vector<uint8_t>& content) {
    Frame f;
    const auto header = hex("02 00 00 00 00 01  02 00 00 00 00 02  89 3a  00 00 00 09 00 05 00 80");
    std::copy(header.begin(), header.end(), f.bytes.begin());
    std::copy(content.begin(), content.begin() + std::min<size_t>(content.size(), 1492),
              f.bytes.begin() + 22);
    return f;
}

// Calls a TLV parser on the raw bytes `tlv`.
template <typename Tlv, typename... Out>
int call(int (*parse)(const Tlv*, Out*...), const uint8_t* tlv, Out*... out) {
    return parse(reinterpret_cast<const Tlv*>(tlv), out...);
}

// The error line `body` of `function` in `module`, line number masked.
inline std::string masked_error(const std::string& module, const std::string& function,
                                const std::string& body) {
    return mask_line_numbers(error_line(module, function, 0, body));
}

}  // namespace kestr::test
