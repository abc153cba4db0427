#include "bench/system_frames.h"

#include <algorithm>
#include <cstring>

#include "port/19051_port.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse.h"
#include "protocol/19051_parse_wsc.h"
#include "protocol/19051_protocol.h"
#include "wsc/encrypt/encrypt.h"
#include "wsc/encrypt/wps_openssl.h"

namespace kbench {

namespace {

const ether_addr kMulticast = {{0x01, 0x80, 0xc2, 0x00, 0x00, 0x13}};

template <typename Build>
Frame build(const ether_addr& to, const ether_addr& from, int mid, Build&& builder) {
    ieee1905Message_t packet;
    std::memset(&packet, 0, sizeof packet);
    param_t param{};
    param.da = to;
    param.sa = from;
    param.mid = mid;
    const int n = builder(&packet, param);
    Frame f(sizeof packet);
    std::memcpy(f.data(), &packet, sizeof packet);
    // Padded to the Ethernet minimum, as the daemon sends them.
    f.resize(static_cast<size_t>(std::max(n, kMinEtherFrameLen)));
    return f;
}

template <typename Record>
void put(Record* r, const void* value, size_t len) {
    std::memcpy(r->val, value, len);
    r->valid_len = static_cast<u_int16_t>(len);
    r->valid = 1;
}
template <typename Record>
void put(Record* r, const char* text) {
    put(r, text, std::strlen(text));
}
template <typename Record, typename Value>
void put_number(Record* r, Value v) {
    r->val = v;
    r->valid = 1;
}

}  // namespace

Frame search(const ether_addr& own, int mid) {
    ap_autoconfig_search_param_t s{};
    s.role = kIeee1905RoleRegistrar;
    s.freq_band = kIeee1905FreqBand2P4G;
    s.almac = own;
    return build(kMulticast, own, mid, [&](ieee1905Message_t* p, const param_t& param) {
        return IEEE19051_GetPacketApAutoconfigurationSearch(p, param, s);
    });
}

Frame wsc(const ether_addr& to, const ether_addr& own, int mid, MessageType_e kind,
          const Nonce& nonce, const uint8_t* public_key) {
    wsc_configuration_t c;
    std::memset(&c, 0, sizeof c);
    put_number(&c.version, 0x10);
    put_number(&c.message_type, static_cast<u_int8_t>(kind));
    put(&c.enrollee_nonce, nonce.data(), nonce.size());
    put(&c.public_key, public_key, kDhPublicKeyLen);
    put_number(&c.rf_bands, RFBands_2P4G);
    if (kind == MessageType_M1) {
        uint8_t uuid[16] = {0x6b, 0x65, 0x73, 0x74, 0x72, 0x64};
        std::memcpy(&uuid[10], own.ether_addr_octet, 6);
        put(&c.UUIDE, uuid, sizeof uuid);
        put(&c.mac, own.ether_addr_octet, 6);
        put_number(&c.pwd_id, DevicePasswordID_PushButton);
        put_number(&c.wifi_simple_configuration_state, 0);
        put(&c.manufacturer, "kestrel devices");
        put(&c.model_name, "PLC-1200");
        put(&c.model_number, "1200-AC");
        put(&c.serial_number, "KD0012345678");
        put(&c.device_name, "bench enrollee");
        const uint8_t device_type[8] = {0x00, 0x06, 0x00, 0x50, 0xf2, 0x04, 0x00, 0x01};
        put(&c.primary_device_type, device_type, sizeof device_type);
    } else {
        put(&c.registrar_nonce, nonce.data(), nonce.size());
    }
    return build(to, own, mid, [&](ieee1905Message_t* p, const param_t& param) {
        return IEEE19051_GetPacketApAutoconfigurationWsc(p, param, &c);
    });
}

Nonce random_nonce() {
    Nonce n(kWscNonceLen);
    linux_random(n.data(), kWscNonceLen);
    return n;
}

bool read_wsc(Frame& f, wsc_configuration_t* c) {
    std::memset(c, 0, sizeof *c);
    if (IEEE19051_GetType(f.data()) != IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC)
        return false;
    for (int i = 0; i < IEEE19051_GetTlvTotalNumber(f.data()); ++i) {
        u_int8_t* tlv = IEEE19051_GetTlvByNumber(f.data(), i);
        if (tlv != nullptr && tlv[0] == IEEE1905_TLV_TYPE_WPS)
            return IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv), c) == 0;
    }
    return false;
}

std::vector<Frame> junk_frames(const std::string& kind, const ether_addr& own) {
    std::vector<Frame> ring;
    uint8_t public_key[kDhPublicKeyLen];
    linux_random(public_key, sizeof public_key);
    for (int i = 0; i < 256; ++i) {
        if (kind == "version") {
            // A Search as an enrollee sends it, but of message version 1: the
            // receive path refuses it on read.
            ring.push_back(search(own, i));
            ring.back()[kEtherHeaderLen] = 1;
        } else if (kind == "ignored") {
            // A valid CMDU of a type no handler takes.
            ring.push_back(build(kMulticast, own, i, [&](ieee1905Message_t* p, const param_t& pr) {
                return IEEE19051_GetPacketTopologyDiscovery(p, pr, own);
            }));
        } else if (kind == "wsc") {
            // A WSC message that is no registrar's M1 and answers no
            // enrollee's M1: an M2 for a nonce nobody sent.
            ring.push_back(wsc(kMulticast, own, i, MessageType_M2, random_nonce(), public_key));
        }
    }
    return ring;
}

}  // namespace kbench
