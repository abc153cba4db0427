// AP-Autoconfiguration WSC messages: the frame built from a message record,
// the WSC TLV the enrollee keeps and the registrar authenticates, the record
// a receiver reads back from the frame, and the limits of one CMDU.
#include <gtest/gtest.h>

#include <memory>

#include "port/common/bytes.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse.h"
#include "protocol/19051_parse_wsc.h"
#include "tests/support/wsc_samples.h"

namespace {

using kestr::test::capture_output;
using kestr::test::config_of_size;
using kestr::test::Frame;
using kestr::test::hex;
using kestr::test::make_param;
using kestr::test::mask_line_numbers;
using kestr::test::masked_error;
using kestr::test::zeroed_config;
using Bytes = std::vector<uint8_t>;

const param_t kToPeer = make_param("00 11 22 33 44 55", "aa bb cc dd ee ff", 70000);
const Bytes kHeader = hex("00 11 22 33 44 55 aa bb cc dd ee ff 89 3a 00 00 00 09 11 70 00 80");
const std::string kTooLong = masked_error("wsc", "get_tlv_wsc", "Err:string too long!\n");

// IEEE19051_GetWscTlv into a heap buffer of exactly `maxlen` bytes, so the
// sanitizer build sees any byte written past it: the result, what was
// written and what was printed.
struct Encoded {
    int rc;
    Bytes tlv;
    std::string printed;
};
Encoded wsc_tlv(wsc_configuration_t config, int maxlen) {
    const size_t size = static_cast<size_t>(std::max(maxlen, 0));
    auto buf = std::make_unique<uint8_t[]>(size);
    Encoded e{};
    e.printed = mask_line_numbers(
        capture_output([&] { e.rc = IEEE19051_GetWscTlv(&config, buf.get(), maxlen); }).out);
    if (e.rc > 0)
        e.tlv.assign(buf.get(), buf.get() + e.rc);
    return e;
}

int build(Frame& f, wsc_configuration_t config, std::string* printed = nullptr) {
    int rc = 0;
    const auto out = capture_output(
        [&] { rc = IEEE19051_GetPacketApAutoconfigurationWsc(f.msg(), kToPeer, &config); });
    if (printed != nullptr)
        *printed = mask_line_numbers(out.out);
    return rc;
}

TEST(WscMessage, FramedByteForByteAndReadBack) {
    const struct {
        const char* what;
        wsc_configuration_t config;
        Bytes tlv;
    } cases[] = {
        {"M1", kestr::test::sample_m1(), kestr::test::sample_m1_tlv()},
        {"M2", kestr::test::sample_m2(), kestr::test::sample_m2_tlv()},
        {"no attributes", zeroed_config(), hex("11 00 00")},
    };
    for (const auto& c : cases) {
        const int len = static_cast<int>(c.tlv.size());
        // The frame: header, the WSC TLV, the end of message; the same from a
        // dirty buffer.
        Frame f, dirty;
        std::fill(dirty.bytes.begin(), dirty.bytes.end(), 0xEE);
        const Bytes want = kestr::test::cat({kHeader, c.tlv, hex("00 00 00")});
        EXPECT_EQ(build(f, c.config), len + 25) << c.what;
        EXPECT_EQ(f.head(len + 25), want) << c.what;
        EXPECT_EQ(build(dirty, c.config), len + 25) << c.what;
        EXPECT_EQ(dirty.head(len + 25), want) << c.what;

        // The TLV on its own fits a buffer of its exact size, and not one
        // byte less; the M2 authenticated from these bytes is the M2 framed.
        Encoded exact = wsc_tlv(c.config, len);
        EXPECT_EQ(exact.rc, len) << c.what;
        EXPECT_EQ(exact.tlv, c.tlv) << c.what;
        EXPECT_EQ(exact.printed, "") << c.what;
        const Encoded short_by_one = wsc_tlv(c.config, len - 1);
        EXPECT_EQ(short_by_one.rc, -1) << c.what;
        EXPECT_EQ(short_by_one.printed, len > 3 ? kTooLong : "") << c.what;

        // The enrollee's way: the kept TLV, framed as it is.
        Frame kept;
        EXPECT_EQ(IEEE19051_GetPacketApAutoconfigurationWsc2(
                      kept.msg(), kToPeer, reinterpret_cast<ieee1905TLV_t*>(exact.tlv.data())),
                  len + 25);
        EXPECT_EQ(kept.bytes, f.bytes) << c.what;

        // A receiver walks to the TLV and reads a record that encodes to the
        // same bytes: every field sent came back (UUID-R is never sent).
        wsc_configuration_t back = zeroed_config();
        ASSERT_EQ(IEEE19051_GetTlvTotalNumber(f.data()), 1) << c.what;
        ASSERT_EQ(
            IEEE19051_ParseTlvWsc(
                reinterpret_cast<ieee1905TLV_t*>(IEEE19051_GetTlvByNumber(f.data(), 0)), &back),
            0);
        EXPECT_EQ(back.UUIDR.valid, 0) << c.what;
        EXPECT_EQ(wsc_tlv(back, len).tlv, c.tlv) << c.what;
    }

    wsc_configuration_t config = kestr::test::sample_m1();
    uint8_t buf[8] = {};
    EXPECT_EQ(IEEE19051_GetPacketApAutoconfigurationWsc(nullptr, kToPeer, &config), -1);
    EXPECT_EQ(IEEE19051_GetPacketApAutoconfigurationWsc(Frame().msg(), kToPeer, nullptr), -1);
    EXPECT_EQ(IEEE19051_GetPacketApAutoconfigurationWsc2(Frame().msg(), kToPeer, nullptr), -1);
    EXPECT_EQ(IEEE19051_GetWscTlv(nullptr, buf, sizeof buf), -1);
    EXPECT_EQ(IEEE19051_GetWscTlv(&config, nullptr, 1492), -1);
}

// The content area holds 1492 bytes: a WSC TLV of up to 1489 attribute bytes
// is built, from a record or as a ready TLV (beyond 1486 the end of message
// no longer fits, which the result shows and the senders refuse); a longer
// one is refused before anything is written to the frame.
TEST(WscMessage, AtTheFrameLimit) {
    const struct {
        int attr_len;
        int frame_len;  // -1: refused
    } cases[] = {{1486, 1514}, {1487, 1515}, {1489, 1517}, {1490, -1}, {1492, -1}};
    for (const auto& c : cases) {
        const wsc_configuration_t config = config_of_size(c.attr_len);
        Frame f;
        std::string printed;
        EXPECT_EQ(build(f, config, &printed), c.frame_len) << c.attr_len;
        EXPECT_EQ(printed, c.frame_len < 0 ? kTooLong : "") << c.attr_len;
        // The enrollee's 1492-byte buffer takes exactly what one CMDU can carry.
        const Encoded kept = wsc_tlv(config, kCmduContentLen);
        Frame ready;
        Bytes tlv = kept.tlv;
        if (c.frame_len < 0) {
            EXPECT_EQ(f.bytes, Frame().bytes) << c.attr_len;
            EXPECT_EQ(kept.rc, -1);
            EXPECT_EQ(kept.printed, kTooLong);
            tlv = hex("11 05 d2");  // a ready TLV of 1490 bytes
            kestr::store_be16(tlv.data() + 1, static_cast<uint16_t>(c.attr_len));
            tlv.resize(3 + static_cast<size_t>(c.attr_len), 0x5A);
        } else {
            EXPECT_EQ(kept.rc, 3 + c.attr_len);
            EXPECT_EQ(f.head(22), kHeader);
            EXPECT_TRUE(std::equal(kept.tlv.begin(), kept.tlv.end(), f.bytes.begin() + 22));
        }
        EXPECT_EQ(IEEE19051_GetPacketApAutoconfigurationWsc2(
                      ready.msg(), kToPeer, reinterpret_cast<ieee1905TLV_t*>(tlv.data())),
                  c.frame_len)
            << c.attr_len;
        EXPECT_EQ(ready.bytes, f.bytes) << c.attr_len;
    }
    // A length that would wrap a 16-bit sum is refused all the same.
    Bytes huge(3 + 65535, 0x5A);
    huge[0] = IEEE1905_TLV_TYPE_WPS;
    huge[1] = huge[2] = 0xFF;
    Frame f;
    EXPECT_EQ(IEEE19051_GetPacketApAutoconfigurationWsc2(
                  f.msg(), kToPeer, reinterpret_cast<ieee1905TLV_t*>(huge.data())),
              -1);
    EXPECT_EQ(f.bytes, Frame().bytes);

    // A record whose length exceeds its own array is not sent at all.
    wsc_configuration_t lying = zeroed_config();
    lying.vendor_extension.valid = 1;
    lying.vendor_extension.valid_len = 1025;
    EXPECT_EQ(build(f, lying), -1);
    EXPECT_EQ(f.bytes, Frame().bytes);

    // Rooms too small for even the TLV header.
    for (const int maxlen : {2, 0, -1}) {
        const Encoded e = wsc_tlv(zeroed_config(), maxlen);
        EXPECT_EQ(e.rc, -1) << maxlen;
        EXPECT_EQ(e.printed, "") << maxlen;
    }
}

}  // namespace
