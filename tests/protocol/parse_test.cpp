// Reading received CMDUs: the TLV walk on honest and hostile content, the
// parsers, and build/parse round trips of every message and TLV kind.
#include <gtest/gtest.h>

#include <functional>
#include <random>

#include "protocol/19051_parse.h"
#include "tests/protocol/cmdu_util.h"

namespace {

using kestr::test::capture_output;
using kestr::test::Frame;
using kestr::test::frame_with_content;
using kestr::test::hex;
using kestr::test::mac;
using kestr::test::make_param;
using kestr::test::masked_error;

std::vector<uint8_t> repeat(const std::string& unit, int times) {
    std::vector<uint8_t> out;
    const auto bytes = hex(unit);
    for (int i = 0; i < times; ++i)
        out.insert(out.end(), bytes.begin(), bytes.end());
    return out;
}

std::vector<uint8_t> concat(std::vector<uint8_t> a, const std::vector<uint8_t>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

std::vector<int> every(int stride, int n) {
    std::vector<int> at;
    for (int i = 0; i < n; ++i)
        at.push_back(i * stride);
    return at;
}

std::vector<int> concat_offsets(std::vector<int> a, const std::vector<int>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Offsets (from the start of the content) of the TLVs the walk hands out.
std::vector<int> walk(Frame& f) {
    std::vector<int> at;
    const int count = IEEE19051_GetTlvTotalNumber(f.data());
    for (int i = 0; i < count; ++i) {
        const uint8_t* tlv = IEEE19051_GetTlvByNumber(f.data(), i);
        if (tlv == nullptr)
            break;
        at.push_back(static_cast<int>(tlv - f.data()) - 22);
    }
    EXPECT_EQ(IEEE19051_GetTlvByNumber(f.data(), count), nullptr);
    return at;
}

TEST(TlvWalk, EndsAtZeroHeaderOrAtTheEdgeOfTheContent) {
    struct Case {
        const char* what;
        std::vector<uint8_t> content;
        std::vector<int> tlvs;
    };
    const Case cases[] = {
        {"only the end of message", hex("00 00 00"), {}},
        {"a search",
         hex("01 00 06 00 11 22 33 44 55 0d 00 01 00 0e 00 01 01 00 00 00"),
         {0, 9, 13}},
        {"type 0 with a length is an ordinary TLV", hex("00 00 02 aa bb 00 00 00"), {0}},
        {"zero-length value: the next TLV follows the header",
         hex("0d 00 00 0e 00 01 01 00 00 00"),
         {0, 3}},
        {"a value that ends exactly at the edge", hex("0d 00 01 00 0e 05 cd"), {0, 4}},
        {"a value one byte past the edge ends the list before it",
         hex("0d 00 01 00 0e 05 ce"),
         {0}},
        {"a length of 65535", hex("0d 00 01 00 ff ff ff"), {0}},
        {"one TLV filling the content exactly, no end of message",
         concat(hex("05 05 d1"), std::vector<uint8_t>(1489, 0x77)),
         {0}},
        {"one byte too long for the content",
         concat(hex("05 05 d2"), std::vector<uint8_t>(1489, 0x77)),
         {}},
        // 498 headers are 1494 bytes, cut to 1492: 497 whole headers and
        // one byte of the next.
        {"back-to-back TLVs and no end of message", repeat("07 00 00", 498), every(3, 497)},
        {"two bytes of a header left at the edge",
         concat(concat(repeat("07 00 00", 495), hex("07 00 02 aa bb")), hex("07 00")),
         concat_offsets(every(3, 495), {1485})},
    };
    for (const auto& c : cases) {
        Frame f = frame_with_content(c.content);
        EXPECT_EQ(walk(f), c.tlvs) << c.what;
        EXPECT_EQ(IEEE19051_GetTlvTotalNumber(f.data()), static_cast<int>(c.tlvs.size())) << c.what;
    }
    EXPECT_EQ(IEEE19051_GetTlvTotalNumber(nullptr), -1);
    EXPECT_EQ(IEEE19051_GetTlvByNumber(nullptr, 0), nullptr);
    Frame f = frame_with_content(hex("0d 00 01 00 00 00 00"));
    EXPECT_EQ(IEEE19051_GetTlvByNumber(f.data(), -1), nullptr);
    EXPECT_EQ(IEEE19051_GetTlvByNumber(f.data(), 0), f.data() + 22);
}

TEST(TlvParsers, ValuesAndRefusals) {
    struct Case {
        const char* what;
        std::string tlv;
        std::function<int(const uint8_t* tlv, uint8_t* out)> parse;
        int result;
        std::string value;  // what the output holds afterwards (from 0xEE)
        std::string err;    // masked error line, or ""
    };
    auto role = [](const uint8_t* t, uint8_t* o) {
        return IEEE19051_ParseTlvSearchedRole(
            reinterpret_cast<const ieee1905APAutoConfigSearchedRoleTLV_t*>(t), o);
    };
    auto band = [](const uint8_t* t, uint8_t* o) {
        return IEEE19051_ParseTlvFreqBand(
            reinterpret_cast<const ieee1905APAutoConfigFreqBandTLV_t*>(t), o);
    };
    auto srole = [](const uint8_t* t, uint8_t* o) {
        return IEEE19051_ParseTlvSupportedRole(
            reinterpret_cast<const ieee1905APAutoConfigSupportedRoleTLV_t*>(t), o);
    };
    auto sband = [](const uint8_t* t, uint8_t* o) {
        return IEEE19051_ParseTlvSupportedFreqBand(
            reinterpret_cast<const ieee1905APAutoConfigSupportedFreqBandTLV_t*>(t), o);
    };
    auto addr = [](const uint8_t* t, uint8_t* o) {
        return IEEE19051_ParseTlvSingleAddr(reinterpret_cast<const ieee1905SingleAddressTLV_t*>(t),
                                            reinterpret_cast<struct ether_addr*>(o));
    };
    const std::string m = "19051_parse";
    const Case cases[] = {
        {"searched role", "0d 00 01 05", role, 0, "05 ee ee ee ee ee", ""},
        {"band", "0e 00 01 01", band, 0, "01 ee ee ee ee ee", ""},
        {"supported role", "0f 00 01 00", srole, 0, "00 ee ee ee ee ee", ""},
        {"supported band, longer than needed", "10 00 02 01 09", sband, 0, "01 ee ee ee ee ee", ""},
        {"the parser does not judge the type", "0e 00 01 07", role, 0, "07 ee ee ee ee ee", ""},
        {"role of length 0", "0d 00 00", role, -1, "ee ee ee ee ee ee",
         masked_error(m, "IEEE19051_ParseTlvSearchedRole", "tlv length 0 < 1\n")},
        {"band of length 0", "0e 00 00", band, -1, "ee ee ee ee ee ee",
         masked_error(m, "IEEE19051_ParseTlvFreqBand", "tlv length 0 < 1\n")},
        {"AL MAC", "01 00 06 00 11 22 33 44 55", addr, 0, "00 11 22 33 44 55", ""},
        {"MAC, type 2", "02 00 06 66 77 88 99 aa bb", addr, 0, "66 77 88 99 aa bb", ""},
        {"address of 5 bytes", "01 00 05 00 11 22 33 44", addr, -1, "ee ee ee ee ee ee",
         masked_error(m, "IEEE19051_ParseTlvSingleAddr", "tlv length 5 < 6\n")},
    };
    for (const auto& c : cases) {
        const auto tlv = hex(c.tlv);  // exactly the TLV: a read past it is caught
        std::vector<uint8_t> out(6, 0xEE);
        int rc = 0;
        const auto printed = capture_output([&] { rc = c.parse(tlv.data(), out.data()); });
        EXPECT_EQ(rc, c.result) << c.what;
        EXPECT_EQ(out, hex(c.value)) << c.what;
        EXPECT_EQ(kestr::test::mask_line_numbers(printed.out), c.err) << c.what;
    }

    const auto tlv = hex("0d 00 01 05");
    const std::string role_msg = "tlv == NULL || role == NULL\n";
    struct Null {
        std::function<int()> call;
        std::string err;
    };
    const Null nulls[] = {
        {[&] { return role(nullptr, nullptr); },
         masked_error(m, "IEEE19051_ParseTlvSearchedRole", role_msg)},
        {[&] { return band(tlv.data(), nullptr); },
         masked_error(m, "IEEE19051_ParseTlvFreqBand", role_msg)},
        {[&] { return srole(nullptr, nullptr); },
         masked_error(m, "IEEE19051_ParseTlvSupportedRole", role_msg)},
        {[&] { return sband(tlv.data(), nullptr); },
         masked_error(m, "IEEE19051_ParseTlvSupportedFreqBand", role_msg)},
        {[&] { return addr(tlv.data(), nullptr); },
         masked_error(m, "IEEE19051_ParseTlvSingleAddr", "tlv == NULL || mac == NULL\n")},
    };
    for (const auto& n : nulls) {
        int rc = 0;
        const auto printed = capture_output([&] { rc = n.call(); });
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(kestr::test::mask_line_numbers(printed.out), n.err);
    }
}

TEST(TlvParsers, VendorSpecific) {
    struct Case {
        const char* what;
        std::vector<uint8_t> tlv;
        int result;
        int val_len;
        std::string err;
    };
    const std::string fn = "IEEE19051_ParseTlvVendorSpecific";
    const Case cases[] = {
        {"OUI only", hex("0b 00 03 00 03 7f"), 0, 0, ""},
        {"two value bytes", hex("0b 00 05 00 03 7f 0a 0b"), 0, 2, ""},
        {"the largest a CMDU holds",
         concat(hex("0b 05 d1 00 03 7f"), std::vector<uint8_t>(1486, 9)), 0, 1486, ""},
        {"no room for the OUI", hex("0b 00 02 00 03"), -1, -1,
         masked_error("19051_parse", fn, "tlv length 2 < 3\n")},
        {"length 0", hex("0b 00 00"), -1, -1,
         masked_error("19051_parse", fn, "tlv length 0 < 3\n")},
        {"longer than any CMDU holds",
         concat(hex("0b 05 d2 00 03 7f"), std::vector<uint8_t>(1487, 9)), -1, -1,
         masked_error("19051_parse", fn, "tlv length 1490 > 1489\n")},
    };
    for (const auto& c : cases) {
        uint8_t oui[3] = {0xEE, 0xEE, 0xEE};
        std::vector<uint8_t> val(kVendorValueMax, 0xEE);
        int val_len = -1;
        int rc = 0;
        const auto printed = capture_output([&] {
            rc = IEEE19051_ParseTlvVendorSpecific(
                reinterpret_cast<const ieee1905VendorSpecificHeaderTLV_t*>(c.tlv.data()), oui,
                val.data(), &val_len);
        });
        EXPECT_EQ(rc, c.result) << c.what;
        EXPECT_EQ(val_len, c.val_len) << c.what;
        EXPECT_EQ(kestr::test::mask_line_numbers(printed.out), c.err) << c.what;
        if (rc == 0) {
            EXPECT_EQ(std::vector<uint8_t>(oui, oui + 3), hex("00 03 7f")) << c.what;
            EXPECT_TRUE(std::equal(val.begin(), val.begin() + val_len, c.tlv.begin() + 6));
            EXPECT_EQ(val[static_cast<size_t>(val_len) % val.size()], val_len < 1486 ? 0xEE : 9);
        } else {
            EXPECT_EQ(oui[0], 0xEE) << c.what;
        }
    }
    uint8_t oui[3];
    int len = 0;
    const auto tlv = hex("0b 00 03 00 03 7f");
    const auto* v = reinterpret_cast<const ieee1905VendorSpecificHeaderTLV_t*>(tlv.data());
    const auto printed = capture_output([&] {
        EXPECT_EQ(IEEE19051_ParseTlvVendorSpecific(nullptr, oui, oui, &len), -1);
        EXPECT_EQ(IEEE19051_ParseTlvVendorSpecific(v, oui, nullptr, &len), -1);
    });
    EXPECT_EQ(kestr::test::mask_line_numbers(printed.out),
              masked_error("19051_parse", fn, "tlv == NULL || oui == NULL\n") +
                  masked_error("19051_parse", fn, "val == NULL || val_len == NULL\n"));
}

}  // namespace
