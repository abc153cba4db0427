// A test peer for the end-to-end tests: a registrar that answers with frames
// crafted from the project's own builders, a sender of single CMDUs, many
// enrollees at once, or a process that dies holding the device's identifier
// lock. Runs inside an emulated device, on its br0.
//
//   kestr_test_peer [--band B] [--role R] [--omit role|band] [--responses N]
//                   [--m2 none|good|bad-auth|replay] [--m2-delay MS] [--from MAC]
//                   [--for SECONDS]
//   kestr_test_peer --send TYPE --to MAC
//   kestr_test_peer --m1-flood N --to MAC --ssid24 TEXT --ssid5 TEXT
//   kestr_test_peer --hold-mid-lock | --mid
#include <getopt.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "daemon/kestrd_apclone.h"
#include "port/common/bytes.h"
#include "port/util.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse.h"
#include "protocol/19051_parse_wsc.h"
#include "protocol/19051_protocol.h"
#include "protocol/mid.h"
#include "tests/e2e/peer_modes.h"

namespace {

struct Options {
    int band = -1;  // -1: the band searched for
    int role = 0;
    std::string omit;
    int responses = -1;
    std::string m2 = "none";
    std::string from;
    int seconds = 10;
    int send_type = -1;
    std::string to;
    int m2_delay_ms = 0;
    int m1_flood = 0;
    std::string ssid24, ssid5;
    bool hold_mid_lock = false;
    bool mid = false;
};

constexpr char kBr0[] = "br0";

// Writes the CMDU header of `type` after the Ethernet header of `param`.
void put_header(kestr::ByteWriter& w, const param_t& param, int type, uint8_t flags) {
    w.bytes(param.da.ether_addr_octet, 6).bytes(param.sa.ether_addr_octet, 6).u16(0x893A);
    w.u8(0).u8(0).u16(static_cast<uint16_t>(type)).u16(static_cast<uint16_t>(param.mid));
    w.u8(0).u8(flags);
}

int send_response(const Options& o, const std::string& to, int mid, int searched_band) {
    const int band = o.band >= 0 ? o.band : searched_band;
    return kestr::send_cmdu("peer", to.c_str(), kBr0, mid, kestr::OnAddressFailure::Stop,
                            [&](ieee1905Message_t* packet, const param_t& param) {
                                kestr::ByteWriter w(packet, sizeof *packet);
                                put_header(w, param, 8, 0x80);
                                if (o.omit != "role") w.u8(15).u16(1).u8(static_cast<uint8_t>(o.role));
                                if (o.omit != "band") w.u8(16).u16(1).u8(static_cast<uint8_t>(band));
                                w.zeros(3);
                                return w.ok() ? static_cast<int>(w.size()) : -1;
                            });
}

int send_bare(int type, const std::string& to) {
    return kestr::send_cmdu("peer", to.c_str(), kBr0, IEEE19051_GenMid(),
                            kestr::OnAddressFailure::Stop,
                            [&](ieee1905Message_t* packet, const param_t& param) {
                                kestr::ByteWriter w(packet, sizeof *packet);
                                put_header(w, param, type, 0x80);
                                w.zeros(3);
                                return w.ok() ? static_cast<int>(w.size()) : -1;
                            });
}

// Answers an M1 with an M2 sealed by the registrar's own code, then spoils it
// as asked: a wrong Authenticator, another Ethernet source, or sent twice.
void answer_m1(const Options& o, u_int8_t* frame) {
    wsc_configuration_t m1;
    std::memset(&m1, 0, sizeof m1);
    u_int8_t m1wsc[kCmduContentLen];
    int m1len = -1;
    const int total = IEEE19051_GetTlvTotalNumber(frame);
    for (int i = 0; i < total; ++i) {
        u_int8_t* tlv = IEEE19051_GetTlvByNumber(frame, i);
        if (tlv == nullptr || tlv[0] != IEEE1905_TLV_TYPE_WPS) continue;
        IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv), &m1);
        m1len = kestr::load_be16(tlv + 1);
        std::memcpy(m1wsc, tlv + 3, static_cast<size_t>(m1len));
    }
    if (m1len < 0 || m1.message_type.val != MessageType_M1) return;

    wsc_configuration_t m2;
    std::memset(&m2, 0, sizeof m2);
    getWscConfigurationM2(&m2, m1, m1.rf_bands.val == RFBands_5G ? 1 : 0, m1wsc, m1len);
    if (o.m2 == "bad-auth") m2.authenticator.val[7] ^= 0x01;

    struct ether_addr enrollee;
    std::memcpy(enrollee.ether_addr_octet, m1.mac.val, 6);
    char to[kMacTextSize];
    mac_etheraddr_to_str(&enrollee, to, sizeof to);
    struct ether_addr from {};
    const bool forge = !o.from.empty() && mac_str_to_etheraddr(o.from.c_str(), &from) == 0;
    const int copies = o.m2 == "replay" ? 2 : 1;
    const int mid = IEEE19051_GenMid();
    // Time for the test to change the enrollee's world before the M2 lands.
    if (o.m2_delay_ms > 0) {
        std::printf("peer: M2 in %d ms\n", o.m2_delay_ms);
        std::fflush(stdout);
        std::this_thread::sleep_for(std::chrono::milliseconds(o.m2_delay_ms));
    }
    for (int i = 0; i < copies; ++i) {
        kestr::send_cmdu("peer", to, kBr0, mid, kestr::OnAddressFailure::Stop,
                         [&](ieee1905Message_t* packet, const param_t& param) {
                             const int n =
                                 IEEE19051_GetPacketApAutoconfigurationWsc(packet, param, &m2);
                             if (forge) std::memcpy(packet->etherHeader.ether_shost, &from, 6);
                             return n;
                         });
        std::printf("peer: M2 (%s) to %s\n", o.m2.c_str(), to);
    }
}

int serve(const Options& o) {
    char br0[] = "br0";
    IEEE19051_MsgInit(br0);
    u_int8_t frame[kCmduMaxFrameLen];
    int answered = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(o.seconds);
    while (std::chrono::steady_clock::now() < end) {
        std::memset(frame, 0, sizeof frame);
        if (IEEE19051_RecvMsg("br0", frame, sizeof frame, 1) <= 0) continue;
        const int type = IEEE19051_GetType(frame);
        if (type == 7 && (o.responses < 0 || answered < o.responses)) {
            u_int8_t band = 0;
            const int total = IEEE19051_GetTlvTotalNumber(frame);
            for (int i = 0; i < total; ++i) {
                u_int8_t* tlv = IEEE19051_GetTlvByNumber(frame, i);
                if (tlv != nullptr && tlv[0] == IEEE1905_TLV_TYPE_FREQ_BAND) band = tlv[3];
            }
            struct ether_addr src;
            IEEE19051_GetEtherSmac(frame, &src);
            char to[kMacTextSize];
            mac_etheraddr_to_str(&src, to, sizeof to);
            send_response(o, to, IEEE19051_GetMid(frame), band);
            ++answered;
            std::printf("peer: Response to %s\n", to);
        } else if (type == 9 && o.m2 != "none") {
            answer_m1(o, frame);
        }
        std::fflush(stdout);
    }
    IEEE19051_MsgUninit();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Options o;
    static const struct option longs[] = {
        {"band", required_argument, nullptr, 'b'},     {"role", required_argument, nullptr, 'r'},
        {"omit", required_argument, nullptr, 'o'},     {"responses", required_argument, nullptr, 'n'},
        {"m2", required_argument, nullptr, 'm'},       {"from", required_argument, nullptr, 'f'},
        {"for", required_argument, nullptr, 's'},      {"send", required_argument, nullptr, 't'},
        {"to", required_argument, nullptr, 'd'},       {"m2-delay", required_argument, nullptr, 'D'},
        {"m1-flood", required_argument, nullptr, 'M'}, {"ssid24", required_argument, nullptr, '2'},
        {"ssid5", required_argument, nullptr, '5'},    {"hold-mid-lock", no_argument, nullptr, 'L'},
        {"mid", no_argument, nullptr, 'i'},            {nullptr, 0, nullptr, 0},
    };
    int c;
    while ((c = getopt_long(argc, argv, "", longs, nullptr)) != -1) {
        switch (c) {
            case 'b': o.band = std::atoi(optarg); break;
            case 'r': o.role = std::atoi(optarg); break;
            case 'o': o.omit = optarg; break;
            case 'n': o.responses = std::atoi(optarg); break;
            case 'm': o.m2 = optarg; break;
            case 'f': o.from = optarg; break;
            case 's': o.seconds = std::atoi(optarg); break;
            case 't': o.send_type = std::atoi(optarg); break;
            case 'd': o.to = optarg; break;
            case 'D': o.m2_delay_ms = std::atoi(optarg); break;
            case 'M': o.m1_flood = std::atoi(optarg); break;
            case '2': o.ssid24 = optarg; break;
            case '5': o.ssid5 = optarg; break;
            case 'L': o.hold_mid_lock = true; break;
            case 'i': o.mid = true; break;
            default: return 2;
        }
    }
    if (o.send_type >= 0) return send_bare(o.send_type, o.to) == 0 ? 0 : 1;
    if (o.m1_flood > 0) return kestr::test::m1_flood(o.m1_flood, o.to, o.ssid24, o.ssid5);
    if (o.hold_mid_lock) return kestr::test::hold_mid_lock();
    if (o.mid) {
        std::printf("peer: mid %d\n", IEEE19051_GenMid());
        return 0;
    }
    return serve(o);
}
