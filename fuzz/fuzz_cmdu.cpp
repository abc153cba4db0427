// A received CMDU through every reader of it: the frame and TLV views and
// the walk over the bare buffer; on every TLV, whatever its type, the vendor
// and topology parsers and the WSC attribute walk and reader (each promises
// only to stay inside the TLV); the typed readers of the Search, Response
// and WSC messages, which read the role, band and address TLVs; the console
// printers, which read the header getters (and print whatever a refused TLV
// left in a record); then the message handlers of both roles, as the
// receive task hands them what it reads. The views hand out TLVs and WSC
// messages inside what arrived, and their TLVs are the first the walk over
// the bare buffer hands out; attributes lie inside their TLV; a topology
// record or WSC message that parses encodes back to the bytes it came from.
//
// For the handlers the enrollee is in the middle of a run: pending are a
// Search for 2.4 GHz (identifier 1) and the M1 of the fixed
// registration (fuzz/fuzz.h) sent to the registrar 2:0:0:0:0:a; no watcher
// runs, so none expires, and the registrar's own M2 opens. Nothing is
// stubbed: the database client fails at once, the device port answers its
// defaults (role registrar, open settings), and nothing sent gets out.
#include "daemon/kestrd_apclone.h"
#include "fuzz/fuzz.h"
#include "protocol/19051_parse.h"
#include "protocol/19051_parse_wsc.h"
#include "protocol/debug.h"

using namespace kestr;

namespace {

struct As {  // a TLV as the record type each parser and encoder takes
    uint8_t* p;
    template <typename T>
    operator T*() const {
        return reinterpret_cast<T*>(p);
    }
};

fuzz::Bytes wsc_again(fuzz::Bytes tlv) {
    wsc_configuration_t c{};
    IEEE19051_ParseTlvWsc(As{tlv.data()}, &c);
    return fuzz::wsc_tlv(c);
}

void every_parser(uint8_t* tlv) {
    const uint16_t len = load_be16(tlv + 1);
    uint8_t oui[3], *at = tlv + 3;
    ether_addr mac;
    device_information_t info{};
    ieee1905BridgingCapability_t cap{};
    neighborDeviceList list{};
    static fuzz::Bytes val(kVendorValueMax), out(kBridgingCapabilityTlvMax);  // the room promised
    auto encodes_back = [&](int m) {  // up to where the parsed entries end
        KESTR_FUZZ_CHECK(m >= 3 && m - 3 <= len && std::equal(&out[3], &out[0] + m, tlv + 3));
    };
    if (int n = 0; IEEE19051_ParseTlvVendorSpecific(As{tlv}, oui, val.data(), &n) == 0)
        print_tlv_vendor_specific(oui, val.data(), n);
    if (IEEE19051_ParseTlvDeviceInformation(As{tlv}, &mac, &info) == 0)
        encodes_back(getTlvDeviceInformation(As{&out[0]}, mac, info));
    if (IEEE19051_ParseTlvDeviceBridgingCapability(As{tlv}, &cap) == 0)
        encodes_back(getTlvDeviceBridgingCapability(As{&out[0]}, cap));
    if (IEEE19051_ParseTlvLegacyNeighbor(As{tlv}, &list) == 0)
        encodes_back(getTlvLegacyNeighbor(As{&out[0]}, list));
    print_tlv_device_information(mac, info);
    print_tlv_device_bridging_capability(cap);
    print_tlv_legacy_neighbor(list);
    print_tlv_wsc_packet(As{tlv});
    for (int i = 0; i < get_wsc_tlv_total(tlv + 3, len); at += 4 + load_be16(at + 2), ++i)
        KESTR_FUZZ_CHECK(get_wsc_tlv_by_number(tlv + 3, len, i) == at &&
                         at + 4 + load_be16(at + 2) <= tlv + 3 + len);
    const fuzz::Bytes once = tlv[0] == IEEE1905_TLV_TYPE_WPS
                                 ? wsc_again(fuzz::Bytes(tlv, tlv + 3 + len))
                                 : fuzz::Bytes();
    KESTR_FUZZ_CHECK(once.empty() || wsc_again(once) == once);
}

// What a run leaves pending once its M1 is out.
void pending() {
    IEEE19051_Info_t info;
    createRequestInfoSearch(&info, 1, 0);
    IEEE19051_AddRequestRecord(info);
    fuzz::Registration& r = fuzz::registration();
    auto m1 = std::make_unique<RequestExtraDataM1_t>();
    KESTR_FUZZ_CHECK(DH_up_ref(r.enrollee.get()) == 1);  // the request's own reference
    m1->dh.reset(r.enrollee.get());
    std::copy(r.m1_tlv.begin(), r.m1_tlv.end(), m1->wsctlv);
    std::copy_n(r.m1.enrollee_nonce.val, kWscNonceLen, m1->enrollee_nonce);
    char registrar[] = "2:0:0:0:0:a";
    createRequestInfoM1(&info, 3, 0, registrar, nullptr);
    KESTR_FUZZ_CHECK(add_request(info, std::move(m1)));
}

}  // namespace

KESTR_FUZZ_START(fuzz::frames, pending)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The receive task's buffer after a read: one CMDU long (AddressSanitizer
    // sees a read past it), the bytes received, zeros after.
    const size_t len = std::min<size_t>(size, kCmduMaxFrameLen);
    fuzz::Bytes frame(kCmduMaxFrameLen, 0);
    std::copy_n(data, len, frame.begin());
    uint8_t* b = frame.data();
    const FrameView view(b, len);
    TlvReader tlvs = view.tlvs();
    Tlv t;
    int i = 0;
    for (uint8_t* at = b + 22; tlvs.next(&t); at += t.whole.remaining(), ++i) {
        KESTR_FUZZ_CHECK(t.whole.data() == at && at + t.whole.remaining() <= b + len &&
                         t.type == at[0] && t.value.data() == at + 3 &&
                         t.value.remaining() + 3 == t.whole.remaining() &&
                         IEEE19051_GetTlvByNumber(b, i) == at);
        every_parser(at);
    }
    WscMessage w;
    read_wsc(view, &w);
    for (const ByteReader& m : {w.m1, w.m2})
        KESTR_FUZZ_CHECK(m.empty() || (m.data() >= b + 22 && m.data() + m.remaining() <= b + len));
    KESTR_FUZZ_CHECK(read_search(view).mid == view.mid() &&
                     read_response(view).source == view.source());
    print_packet_tlv(b);
    print_wsc_configuration(w.attributes);

    msgApcloneProcesSearch(IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_SEARCH, b, int(len));
    msgApcloneProcesM1(IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC, b, int(len));
    msgApcloneProcessResponse(IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_RESPONSE, b, int(len));
    msgApcloneProcesM2(IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC, b, int(len));
    return 0;
}
