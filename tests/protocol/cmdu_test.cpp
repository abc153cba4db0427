// CMDUs byte for byte as the builders write them, and as a receiver reads
// them back: the TLV walk and every TLV parser against hostile input, the
// records the handlers work on; and the transport over a real bridge, in
// namespaces the test creates.
// Randomly damaged frames are the fuzz targets' work.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <tuple>

#include "protocol/19051_message.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse.h"
#include "tests/support/netns.h"
#include "tests/support/wsc_samples.h"

namespace {

using namespace kestr::test;
using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
#define BUILD(...) [&](ieee1905Message_t* p) { return __VA_ARGS__; }
constexpr auto wsc = &IEEE19051_GetPacketApAutoconfigurationWsc;
constexpr auto wsc2 = &IEEE19051_GetPacketApAutoconfigurationWsc2;

const param_t kMulticast = make_param("01 80 c2 00 00 13", "aa bb cc dd ee ff", 0x1234);
// Identifier 70000 goes out as its low 16 bits, 0x1170.
const param_t kToPeer = make_param("00 11 22 33 44 55", "aa bb cc dd ee ff", 70000);
const auto kAl = mac("00 11 22 33 44 55");
const std::string kMc = "01 80 c2 00 00 13 aa bb cc dd ee ff 89 3a 00 00 ";
const std::string kUc = "00 11 22 33 44 55 aa bb cc dd ee ff 89 3a 00 00 ";

// A TLV of `type` around `value`; ready_tlv(n) a WSC TLV of n attribute bytes.
Bytes tlv(uint8_t type, const Bytes& value) {
    return cat({{type, uint8_t(value.size() >> 8), uint8_t(value.size())}, value});
}
Bytes ready_tlv(int n) {
    return tlv(IEEE1905_TLV_TYPE_WPS, Bytes(size_t(n), 0x3C));
}

template <typename T>
T* at(Bytes& b) {
    return reinterpret_cast<T*>(b.data());
}

int search(ieee1905Message_t* p) {
    return IEEE19051_GetPacketApAutoconfigurationSearch(p, kMulticast, {0, 1, kAl});
}

TEST(Cmdu, EveryBuilderByteForByte) {
    wsc_configuration_t m1 = sample_m1(), over = config_of_size(1490);
    Bytes kept = sample_m1_tlv(), fits = ready_tlv(1486), no_eom = ready_tlv(1487),
          too_long = ready_tlv(1490);
    ap_autoconfig_renew_param_t renew{0, 1, kAl};
    device_information_t info{1, {}}, too_many{INTERFACE_TOTAL_MAX + 1, {}};
    IEEE19051_GetInterfaceInformation(&info.interface[0], "0:a:b:c:d:e",
                                      IEEE1905_MEDIA_TYPE_IEEE802_11, 0x103);
    ieee1905BridgingCapability_t bridging{2, {{1, {mac("10 00 00 00 00 01")}}}};
    neighborDeviceList neighbors{1, {{mac("20 00 00 00 00 01"), mac("30 00 00 00 00 01")}}};
    const std::string to_peer = kUc + "00 09 11 70 00 80 ", eom = " 00 00 00";
    // What is built, the result, and the frame's first bytes; the rest is left as it was.
    const std::tuple<const char*, std::function<int(ieee1905Message_t*)>, int, std::string>
        cases[] = {
            {"Search", search, 42,
             kMc + "00 07 12 34 00 c0 01 00 06 00 11 22 33 44 55 0d 00 01 00 0e 00 01 01" + eom},
            {"Response", BUILD(IEEE19051_GetPacketApAutoconfigurationResponse(p, kToPeer, {0, 0})),
             33, kUc + "00 08 11 70 00 80 0f 00 01 00 10 00 01 00" + eom},
            {"Renew", BUILD(IEEE19051_GetPacketApAutoconfigurationRenew(p, kMulticast, &renew)), 42,
             kMc + "00 0a 12 34 00 c0 01 00 06 00 11 22 33 44 55 0f 00 01 00 10 00 01 01" + eom},
            {"M1 from its record", BUILD(wsc(p, kToPeer, &m1)), 150, to_peer + to_hex(kept) + eom},
            {"M1 from the TLV the enrollee keeps", BUILD(wsc2(p, kToPeer, at<ieee1905TLV_t>(kept))),
             150, to_peer + to_hex(kept) + eom},
            {"a kept TLV that fills the frame", BUILD(wsc2(p, kToPeer, at<ieee1905TLV_t>(fits))),
             1514, to_peer + to_hex(fits) + eom},
            // One byte more and the end of message no longer fits: the length
            // says so, and the senders refuse it.
            {"one byte more", BUILD(wsc2(p, kToPeer, at<ieee1905TLV_t>(no_eom))), 1515,
             to_peer + to_hex(no_eom)},
            {"a kept TLV past the content area",
             BUILD(wsc2(p, kToPeer, at<ieee1905TLV_t>(too_long))), -1, ""},
            {"a record past it", BUILD(wsc(p, kToPeer, &over)), -1, ""},
            {"Topology Discovery", BUILD(IEEE19051_GetPacketTopologyDiscovery(p, kMulticast, kAl)),
             43,
             kMc + "00 00 12 34 00 80 01 00 06 00 11 22 33 44 55 02 00 06 aa bb cc dd ee ff" + eom},
            {"Topology Notification",
             BUILD(IEEE19051_GetPacketTopologyNotification(p, kMulticast, kAl)), 34,
             kMc + "00 01 12 34 00 c0 01 00 06 00 11 22 33 44 55" + eom},
            {"Topology Query", BUILD(IEEE19051_GetPacketTopologyQuery(p, kToPeer)), 25,
             kUc + "00 02 11 70 00 80" + eom},
            {"Topology Response",
             BUILD(IEEE19051_GetPacketTopologyResponse(p, kToPeer, info, bridging, neighbors)), 81,
             kUc + "00 03 11 70 00 80 03 00 1a aa bb cc dd ee ff 01"
                   "  00 0a 0b 0c 0d 0e 01 03 0a 00 0a 0b 0c 0d 0e 00 00 00 00"
                   "04 00 09 02 01 10 00 00 00 00 01 00"
                   "06 00 0c 20 00 00 00 00 01 30 00 00 00 00 01 00 00 00"},
            {"an Ethernet header", BUILD((fillEtherHeader(p, kToPeer), 14)), 14, kUc.substr(0, 42)},
            {"null packets or parameters, records over their limits",
             BUILD(std::max(
                 {search(nullptr),
                  IEEE19051_GetPacketApAutoconfigurationRenew(p, kMulticast, nullptr),
                  wsc(p, kToPeer, nullptr), wsc2(p, kToPeer, nullptr),
                  IEEE19051_GetPacketTopologyResponse(Frame().msg(), kToPeer, too_many, {}, {}),
                  IEEE19051_GetInterfaceInformation(nullptr, "0:1:2:3:4:5",
                                                    IEEE1905_MEDIA_TYPE_MOCA, 0)})),
             -1, ""},
        };
    for (const auto& [what, build, result, head] : cases) {
        // Builders write every byte they count, whatever the frame held.
        Frame f;
        std::fill(f.bytes.begin(), f.bytes.end(), 0xEE);
        EXPECT_EQ(build(f.msg()), result) << what;
        const Bytes want = hex(head);
        EXPECT_EQ(to_hex(f.head(int(want.size()))), to_hex(want)) << what;
        EXPECT_EQ(std::count(f.bytes.begin() + long(want.size()), f.bytes.end(), 0xEE),
                  1514 - long(want.size()))
            << what;
    }
}

// What a receiver makes of a TLV: "type=value" with the value its parser
// gives, "!" when the parser refuses it; a topology TLV gives its count.
std::string read_one(const uint8_t* t) {
    Bytes val(kVendorValueMax);
    uint8_t b = 0, oui[3] = {};
    struct ether_addr a {};
    device_information_t d{};
    ieee1905BridgingCapability_t bc{};
    neighborDeviceList nl{};
    const std::function<int()> one_byte[] = {
        [&] { return call(IEEE19051_ParseTlvSearchedRole, t, &b); },
        [&] { return call(IEEE19051_ParseTlvFreqBand, t, &b); },
        [&] { return call(IEEE19051_ParseTlvSupportedRole, t, &b); },
        [&] { return call(IEEE19051_ParseTlvSupportedFreqBand, t, &b); }};
    int rc = 0, n = 0;
    std::string v;
    if (t[0] >= 13 && t[0] <= 16) {
        rc = one_byte[t[0] - 13](), v = to_hex(&b, 1);
    } else if (t[0] == 1 || t[0] == 2) {
        rc = call(IEEE19051_ParseTlvSingleAddr, t, &a), v = to_hex(a.ether_addr_octet, 6);
    } else if (t[0] == 11) {
        rc = call(IEEE19051_ParseTlvVendorSpecific, t, oui, val.data(), &n);
        v = to_hex(oui, 3) + "/" + std::to_string(n);
    } else if (t[0] == 3) {
        rc = call(IEEE19051_ParseTlvDeviceInformation, t, &a, &d), v = std::to_string(d.num);
    } else if (t[0] == 4) {
        rc = call(IEEE19051_ParseTlvDeviceBridgingCapability, t, &bc), v = std::to_string(bc.m);
    } else if (t[0] == 6) {
        rc = call(IEEE19051_ParseTlvLegacyNeighbor, t, &nl), v = std::to_string(nl.num);
    } else {
        return std::to_string(t[0]);
    }
    return std::to_string(t[0]) + "=" + (rc ? "!" : v);
}

TEST(Cmdu, TlvWalkAndParsersOnHostileInput) {
    // Content, whether only it arrived (stale bytes of a longer frame follow
    // it), and what is read from it.
    const std::tuple<const char*, Bytes, bool, std::string> cases[] = {
        {"only the end of message", hex("00 00 00"), false, ""},
        {"type 0 with a length is a TLV",
         hex("00 00 02 aa bb 02 00 06 66 77 88 99 aa bb 0d 00 01 07 0b 00 03 00 03 7f"), false,
         "0 2=66 77 88 99 aa bb 13=07 11=00 03 7f/0 "},
        {"values shorter than their parsers need",
         hex("0d 00 00 0e 00 01 01 01 00 05 00 11 22 33 44 10 00 00 0b 00 02 00 03"), false,
         "13=! 14=01 1=! 16=! 11=! "},
        {"a vendor TLV that fills the content", tlv(11, cat({hex("00 03 7f"), Bytes(1486, 9)})),
         false, "11=00 03 7f/1486 "},
        {"a value one byte past the edge of the content", hex("0d 00 01 00 0e 05 ce"), false,
         "13=00 "},
        {"a header cut by the edge",
         cat({tlv(11, cat({hex("00 03 7f"), Bytes(1480, 9)})), hex("0f 00 01 00 07 00")}), false,
         "11=00 03 7f/1480 15=00 "},
        {"a Response without end of message", hex("0f 00 01 00 10 00 01 01"), true, "15=00 16=01 "},
        {"a length beyond what arrived", hex("0f 00 01 00 10 03 84 01"), true, "15=00 "},
        // Device Information (3), Bridging Capability (4), Legacy Neighbor (6).
        {"topology records, full and at their limits",
         cat({tlv(3, hex("010203040506 01 020000000001 0103 02 aabb")),
              tlv(4, hex("02 01 0a0b0c0d0e0f 00")), tlv(6, Bytes(24, 0x66)),
              tlv(3, cat({hex("010203040506 0a"), Bytes(90, 0)})),
              tlv(4, cat({{10}, Bytes(10, 0)})),
              tlv(3, cat({hex("010203040506 01 000000000000 0000 0b"), Bytes(11, 7)})),
              tlv(4, cat({{1, 10}, Bytes(60, 9)})), tlv(6, Bytes(360, 0x66))}),
         false, "3=1 4=2 6=2 3=10 4=10 3=1 4=1 6=30 "},
        {"counts and entries beyond the records",
         cat({tlv(3, hex("010203040506 0b")), tlv(4, hex("0b")), tlv(6, Bytes(372, 0x66)),
              tlv(3, cat({hex("010203040506 01 000000000000 0000 0c"), Bytes(12, 7)})),
              tlv(4, cat({{1, 11}, Bytes(66, 9)}))}),
         false, "3=! 4=! 6=! 3=! 4=! "},
        {"entries that are not there",
         cat({tlv(3, cat({hex("010203040506 02"), Bytes(9, 0)})), tlv(4, hex("03 00 00")),
              tlv(4, hex("01 02 aabb")), tlv(3, hex("010203040506")), tlv(4, {})}),
         false, "3=! 4=! 4=! 3=! 4=! "},
        {"neighbours and a remainder", tlv(6, Bytes(25, 0x66)), false, "6=2 "},
    };
    for (const auto& [what, content, cut, tlvs] : cases) {
        Frame f = frame_with_content(content);
        const size_t received = cut ? 22 + content.size() : f.bytes.size();
        std::fill(f.bytes.begin() + long(received), f.bytes.end(), 0xA5);
        std::string read, bare;
        kestr::TlvReader walk = kestr::FrameView(f.data(), received).tlvs();
        for (kestr::Tlv t; walk.next(&t);)
            read += read_one(t.whole.data()) + " ";
        // The walk over a bare buffer, which holds a whole frame by contract.
        for (int i = 0; !cut && i < IEEE19051_GetTlvTotalNumber(f.data()); ++i)
            bare += read_one(IEEE19051_GetTlvByNumber(f.data(), i)) + " ";
        EXPECT_EQ(read + "|" + bare, tlvs + "|" + (cut ? "" : tlvs)) << what;
    }
    Bytes t = hex("0b 00 03 00 03 7f");  // null outputs are refused
    EXPECT_EQ(IEEE19051_ParseTlvVendorSpecific(at<ieee1905VendorSpecificHeaderTLV_t>(t), t.data(),
                                               nullptr, nullptr) +
                  IEEE19051_ParseTlvFreqBand(nullptr, t.data()) +
                  IEEE19051_GetTlvTotalNumber(nullptr),
              -3);
}

// The records the handlers work on, read once from a frame: Search |
// Response | the M1 and M2 of a WSC message (offset and length) and its type.
std::string records(const Frame& f, size_t received) {
    const kestr::FrameView frame(f.bytes.data(), received);
    const kestr::SearchMessage s = kestr::read_search(frame);
    const kestr::ResponseMessage r = kestr::read_response(frame);
    kestr::WscMessage w;
    kestr::read_wsc(frame, &w);
    auto num = [](bool has, int v) { return (has ? std::to_string(v) : "-") + " "; };
    auto at = [&](bool has, const kestr::ByteReader& v) {
        return has ? num(1, int(v.data() - f.bytes.data() - 22)) + num(1, int(v.remaining()))
                   : "- ";
    };
    return std::to_string(s.mid) + " " + to_hex(s.source.octets.data(), 6) + " " +
           to_hex(s.almac.octets.data(), 6) + " " + num(1, s.searched_role) +
           num(1, s.searched_band) + "| " + num(r.has_role, r.supported_role) +
           num(r.has_band, r.supported_band) + "| " + at(w.has_m1, w.m1) + at(w.has_m2, w.m2) +
           num(w.attributes.message_type.valid == 1, w.attributes.message_type.val);
}

TEST(Cmdu, TypedReaders) {
    Frame s;
    search(s.msg());
    const std::string none = "5 02 00 00 00 00 02 00 00 00 00 00 00 0 0 | ";
    const std::tuple<const char*, Frame, size_t, std::string> cases[] = {
        {"a Search as built", s, 42, "4660 aa bb cc dd ee ff 00 11 22 33 44 55 0 1 | - - | - - - "},
        {"later TLVs count, refused ones do not",
         frame_with_content(hex("0d0001 01 0f0001 01 100001 00 100001 01 0d0001 00 0f0000")), 1514,
         none + "1 1 | - - - "},
        {"an M2 TLV, then an M1 TLV",
         frame_with_content(hex("11000a 104a000110 1022000105 110005 1022000104")), 1514,
         none + "- - | 16 5 3 10 4 "},
    };
    for (const auto& [what, frame, received, read] : cases)
        EXPECT_EQ(records(frame, received), read) << what;
    struct ether_addr to {};  // the header getters read the same bytes
    EXPECT_EQ(IEEE19051_GetEtherDmac(s.data(), &to), 0);
    EXPECT_EQ(to_hex(to.ether_addr_octet, 6), "01 80 c2 00 00 13");
}

TEST(CmduTransport, ReceiverRefusesSendersPadAndRefuse) {
    KESTR_ENTER_NAMESPACES();
    PeerPort peer;
    ASSERT_TRUE(peer.ok());
    IEEE19051_MsgInit(const_cast<char*>("br0"));
    const Bytes br = interface_mac("br0");
    const std::string head = to_hex(cat({br, peer.mac()})), fn = "IEEE19051_RecvMsg: ";
    // A frame from the peer, what the reader returns and says.
    const std::tuple<Bytes, int, std::string> frames[] = {
        {hex(head + "89 3a 00 00 00 07 00 01 00 c0 00 00"), -1,
         fn + "Bad length of the frame: 24\n"},
        {hex(head + "89 3a 00 ee 00 07 00 01 33 3f 00 00 00"), 25, ""},
        {hex(head + "89 3a 01 00 00 07 00 01 00 c0 00 00 00"), -1, fn + "Unsupported version: 1\n"},
    };
    for (const auto& [frame, result, err] : frames) {
        ASSERT_TRUE(peer.send(frame));
        Bytes buf(1514);
        int n = 0;
        EXPECT_EQ(capture_output([&] { n = IEEE19051_RecvMsg("br0", buf.data(), 1514, 2); }).err,
                  err);
        EXPECT_EQ(n, result);
        EXPECT_TRUE(std::equal(buf.begin(), buf.begin() + std::max(n, 0), frame.begin()));
    }
    EXPECT_EQ(IEEE19051_RecvSockCreate("", 0x893A), -1);

    // A Search goes out padded with zeros to 60 bytes, a WSC message that
    // fills the frame whole; to the peer's MAC as text.
    const std::string to = kestr::MacText(kestr::Mac::of(mac(peer.mac()))).text;
    Bytes fits = ready_tlv(1486), no_eom = ready_tlv(1487);
    Frame s, w;
    IEEE19051_GetPacketApAutoconfigurationSearch(s.msg(), param_t{kMulticast.da, mac(br), 0, 7},
                                                 {0, 1, kAl});
    wsc2(w.msg(), param_t{mac(peer.mac()), mac(br), 0, 6}, at<ieee1905TLV_t>(fits));
    ASSERT_EQ(IEEE19051_SendMsgApAutoconfigurationSearch("br0", 7, {0, 1, kAl}), 0);
    EXPECT_EQ(peer.receive(2000ms), cat({s.head(42), Bytes(18, 0)}));
    ASSERT_EQ(
        IEEE19051_SendMsgApAutoconfigurationWsc2(to.c_str(), "br0", 6, at<ieee1905TLV_t>(fits)), 0);
    EXPECT_EQ(peer.receive(2000ms), w.bytes);
    // No interface, no destination, a destination that is no MAC address, a
    // frame one byte too long: refused, and nothing goes out.
    const auto refused = capture_output([&] {
        EXPECT_EQ(std::max({IEEE19051_SendMsgApAutoconfigurationSearch(nullptr, 1, {}),
                            IEEE19051_SendMsgTopologyQuery(nullptr, "br0", 1),
                            IEEE19051_SendMsgApAutoconfigurationResponse("00-11-22-33-44-55", "br0",
                                                                         1, {}),
                            IEEE19051_SendMsgApAutoconfigurationWsc2(to.c_str(), "br0", 6,
                                                                     at<ieee1905TLV_t>(no_eom))}),
                  -1);
    });
    EXPECT_NE(refused.out.find("num_bytes 1515\n"), std::string::npos);
    EXPECT_FALSE(peer.receive(300ms).has_value()) << "a refused message went out";
    IEEE19051_MsgUninit();
}

}  // namespace
