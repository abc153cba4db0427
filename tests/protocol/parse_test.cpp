// The TLV walk on honest and hostile content, and the one-value parsers.
#include "protocol/19051_parse.h"
#include "protocol/19051_view.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "tests/support/bytes.h"

namespace {

using kestr::test::capture_output;
using kestr::test::Frame;
using kestr::test::frame_with_content;
using kestr::test::hex;
using kestr::test::mask_line_numbers;
using kestr::test::masked_error;
using Bytes = std::vector<uint8_t>;

Bytes repeat(const std::string& unit, int times) {
    Bytes out;
    for (int i = 0; i < times; ++i)
        kestr::test::append(out, hex(unit));
    return out;
}

std::vector<int> every(int stride, int n) {
    std::vector<int> at;
    for (int i = 0; i < n; ++i)
        at.push_back(i * stride);
    return at;
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
        Bytes content;
        std::vector<int> tlvs;
    };
    std::vector<int> cut_header = every(3, 495);
    cut_header.push_back(1485);
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
        // 498 headers are 1494 bytes, cut to 1492: 497 whole headers, no end
        // of message, and one byte of the next header.
        {"back-to-back TLVs and no end of message", repeat("07 00 00", 498), every(3, 497)},
        {"two bytes of a header left at the edge",
         kestr::test::cat({repeat("07 00 00", 495), hex("07 00 02 aa bb 07 00")}), cut_header},
    };
    for (const auto& c : cases) {
        Frame f = frame_with_content(c.content);
        EXPECT_EQ(walk(f), c.tlvs) << c.what;
        EXPECT_EQ(IEEE19051_GetTlvTotalNumber(f.data()), static_cast<int>(c.tlvs.size())) << c.what;
    }
    Frame f = frame_with_content(hex("0d 00 01 00 00 00 00"));
    EXPECT_EQ(IEEE19051_GetTlvByNumber(f.data(), 0), f.data() + 22);
    EXPECT_EQ(IEEE19051_GetTlvByNumber(f.data(), -1), nullptr);
    EXPECT_EQ(IEEE19051_GetTlvByNumber(nullptr, 0), nullptr);
    EXPECT_EQ(IEEE19051_GetTlvTotalNumber(nullptr), -1);
}

// A frame's view knows how much of it arrived. A TLV whose length runs past
// the received bytes must not be handed out with whatever follows the frame
// (stale bytes of an earlier, longer frame) as its value: the list ends
// before it.
TEST(TlvWalk, ReceivedFrameEndsTheListBeforeATlvThatRunsPastIt) {
    struct Case {
        const char* what;
        Bytes content;  // all of it received
        std::vector<int> tlvs;
    };
    const Case cases[] = {
        {"a Response whole, with its end of message",
         hex("0f 00 01 00 10 00 01 01 00 00 00"),
         {0, 4}},
        {"a Response without end of message", hex("0f 00 01 00 10 00 01 01"), {0, 4}},
        {"a band TLV whose value did not arrive", hex("0f 00 01 00 10 00 01"), {0}},
        {"a band TLV that claims 900 bytes", hex("0f 00 01 00 10 03 84 01"), {0}},
        {"a header cut after its type", hex("0f 00 01 00 10"), {0}},
        {"a WSC TLV longer than the frame", hex("11 00 09 10 4a 00 01 10"), {}},
        {"end of message, then bytes that are no TLV", hex("0f 00 01 00 00 00 00 10 07"), {0}},
        {"no content at all", hex(""), {}},
    };
    for (const auto& c : cases) {
        Frame f = frame_with_content(c.content);
        std::fill(f.bytes.begin() + 22 + static_cast<long>(c.content.size()), f.bytes.end(), 0xA5);
        const int received = 22 + static_cast<int>(c.content.size());
        kestr::TlvReader tlvs = kestr::FrameView(f.data(), received).tlvs();
        std::vector<int> at;
        kestr::Tlv tlv;
        for (kestr::ByteReader start = tlvs.rest(); tlvs.next(&tlv); start = tlvs.rest())
            at.push_back(static_cast<int>(start.data() - (f.data() + 22)));
        EXPECT_EQ(at, c.tlvs) << c.what;
    }
}

template <typename Tlv, typename Out>
std::function<int(const uint8_t*, uint8_t*)> parser(int (*fn)(const Tlv*, Out*)) {
    return [fn](const uint8_t* t, uint8_t* o) {
        return fn(reinterpret_cast<const Tlv*>(t), reinterpret_cast<Out*>(o));
    };
}

TEST(TlvParsers, ValuesAndRefusals) {
    const auto role = parser(IEEE19051_ParseTlvSearchedRole);
    const auto band = parser(IEEE19051_ParseTlvFreqBand);
    const auto addr = parser(IEEE19051_ParseTlvSingleAddr);
    const std::string m = "19051_parse";
    struct Case {
        const char* what;
        std::string tlv;  // the buffer is exactly the TLV: a read past it is caught
        std::function<int(const uint8_t*, uint8_t*)> parse;
        int result;
        std::string value;  // the output afterwards, from 0xEE
        std::string err;
    };
    const Case cases[] = {
        {"searched role", "0d 00 01 05", role, 0, "05 ee ee ee ee ee", ""},
        {"supported role", "0f 00 01 00", parser(IEEE19051_ParseTlvSupportedRole), 0,
         "00 ee ee ee ee ee", ""},
        {"supported band, longer than needed", "10 00 02 01 09",
         parser(IEEE19051_ParseTlvSupportedFreqBand), 0, "01 ee ee ee ee ee", ""},
        {"the caller, not the parser, judges the type", "0e 00 01 07", role, 0, "07 ee ee ee ee ee",
         ""},
        {"role of length 0", "0d 00 00", role, -1, "ee ee ee ee ee ee",
         masked_error(m, "IEEE19051_ParseTlvSearchedRole", "tlv length 0 < 1\n")},
        {"band of length 0", "0e 00 00", band, -1, "ee ee ee ee ee ee",
         masked_error(m, "IEEE19051_ParseTlvFreqBand", "tlv length 0 < 1\n")},
        {"AL MAC", "01 00 06 00 11 22 33 44 55", addr, 0, "00 11 22 33 44 55", ""},
        {"MAC, type 2", "02 00 06 66 77 88 99 aa bb", addr, 0, "66 77 88 99 aa bb", ""},
        {"address of 5 bytes", "01 00 05 00 11 22 33 44", addr, -1, "ee ee ee ee ee ee",
         masked_error(m, "IEEE19051_ParseTlvSingleAddr", "tlv length 5 < 6\n")},
        {"null output of a band parser", "0e 00 01 01",
         [&](const uint8_t* t, uint8_t*) { return band(t, nullptr); }, -1, "ee ee ee ee ee ee",
         masked_error(m, "IEEE19051_ParseTlvFreqBand", "tlv == NULL || role == NULL\n")},
        {"null address TLV", "", [&](const uint8_t*, uint8_t* o) { return addr(nullptr, o); }, -1,
         "ee ee ee ee ee ee",
         masked_error(m, "IEEE19051_ParseTlvSingleAddr", "tlv == NULL || mac == NULL\n")},
    };
    for (const auto& c : cases) {
        const Bytes tlv = hex(c.tlv);
        Bytes out(6, 0xEE);
        int rc = 0;
        const auto printed = capture_output([&] { rc = c.parse(tlv.data(), out.data()); });
        EXPECT_EQ(rc, c.result) << c.what;
        EXPECT_EQ(out, hex(c.value)) << c.what;
        EXPECT_EQ(mask_line_numbers(printed.out), c.err) << c.what;
    }
}

TEST(TlvParsers, VendorSpecific) {
    const std::string fn = "IEEE19051_ParseTlvVendorSpecific";
    struct Case {
        Bytes tlv;
        int val_len;  // -1: refused
        std::string err;
    };
    const Case cases[] = {
        {hex("0b 00 03 00 03 7f"), 0, ""},
        {hex("0b 00 05 00 03 7f 0a 0b"), 2, ""},
        {kestr::test::cat({hex("0b 05 d1 00 03 7f"), Bytes(1486, 9)}), 1486, ""},
        {hex("0b 00 02 00 03"), -1, masked_error("19051_parse", fn, "tlv length 2 < 3\n")},
        {hex("0b 00 00"), -1, masked_error("19051_parse", fn, "tlv length 0 < 3\n")},
        {kestr::test::cat({hex("0b 05 d2 00 03 7f"), Bytes(1487, 9)}), -1,
         masked_error("19051_parse", fn, "tlv length 1490 > 1489\n")},
    };
    for (const auto& c : cases) {
        uint8_t oui[3] = {0xEE, 0xEE, 0xEE};
        Bytes val(kVendorValueMax, 0xEE);
        int val_len = -1;
        int rc = 0;
        const auto printed = capture_output([&] {
            rc = IEEE19051_ParseTlvVendorSpecific(
                reinterpret_cast<const ieee1905VendorSpecificHeaderTLV_t*>(c.tlv.data()), oui,
                val.data(), &val_len);
        });
        EXPECT_EQ(rc, c.val_len < 0 ? -1 : 0);
        EXPECT_EQ(val_len, c.val_len);
        EXPECT_EQ(mask_line_numbers(printed.out), c.err);
        EXPECT_EQ(Bytes(oui, oui + 3), c.val_len < 0 ? hex("ee ee ee") : hex("00 03 7f"));
        if (c.val_len > 0) {
            EXPECT_TRUE(std::equal(val.begin(), val.begin() + c.val_len, c.tlv.begin() + 6));
        }
    }
    uint8_t oui[3];
    int len = 0;
    const Bytes tlv = hex("0b 00 03 00 03 7f");
    const auto* v = reinterpret_cast<const ieee1905VendorSpecificHeaderTLV_t*>(tlv.data());
    const auto printed = capture_output([&] {
        EXPECT_EQ(IEEE19051_ParseTlvVendorSpecific(nullptr, oui, oui, &len), -1);
        EXPECT_EQ(IEEE19051_ParseTlvVendorSpecific(v, oui, nullptr, &len), -1);
    });
    EXPECT_EQ(mask_line_numbers(printed.out),
              masked_error("19051_parse", fn, "tlv == NULL || oui == NULL\n") +
                  masked_error("19051_parse", fn, "val == NULL || val_len == NULL\n"));
}

}  // namespace
