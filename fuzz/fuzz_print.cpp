// The console printers on arbitrary frames: the whole frame, the WSC
// attributes of every TLV the walk hands out (whatever its type), and the
// records that the frame's TLVs parse into. Output goes wherever stdout
// goes (closed by fuzz/run.sh); what is checked is that nothing is read
// outside the frame or the records.
#include <cstring>
#include <vector>

#include "fuzz/support.h"
#include "protocol/19051_parse.h"
#include "protocol/19051_parse_wsc.h"
#include "protocol/debug.h"
#include "wsc/wsc.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kestr::fuzz::Frame frame(data, size);
    uint8_t* buf = frame.data();
    print_packet_tlv(buf);

    wsc_configuration_t config;
    std::memset(&config, 0, sizeof config);
    const int count = IEEE19051_GetTlvTotalNumber(buf);
    for (int i = 0; i < count; ++i) {
        uint8_t* tlv = IEEE19051_GetTlvByNumber(buf, i);
        if (tlv == nullptr)
            break;
        print_tlv_wsc_packet(reinterpret_cast<ieee1905TLV_t*>(tlv));
        switch (tlv[0]) {
            case IEEE1905_TLV_TYPE_WPS:
                IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv), &config);
                break;
            case IEEE1905_TLV_TYPE_DEVICE_INFORMATION: {
                struct ether_addr almac;
                device_information_t info;
                std::memset(&info, 0, sizeof info);
                if (IEEE19051_ParseTlvDeviceInformation(
                        reinterpret_cast<ieee1905DeviceInformationTLV_t*>(tlv), &almac, &info) == 0)
                    print_tlv_device_information(almac, info);
                break;
            }
            case IEEE1905_TLV_TYPE_DEVICE_BRIDGING_CAPABILITY: {
                ieee1905BridgingCapability_t capability;
                std::memset(&capability, 0, sizeof capability);
                if (IEEE19051_ParseTlvDeviceBridgingCapability(
                        reinterpret_cast<ieee1905DeviceBridgingCapabilityTLV_t*>(tlv),
                        &capability) == 0)
                    print_tlv_device_bridging_capability(capability);
                break;
            }
            case IEEE1905_TLV_TYPE_LEGACY_NEIGHBOR: {
                neighborDeviceList list;
                std::memset(&list, 0, sizeof list);
                if (IEEE19051_ParseTlvLegacyNeighbor(
                        reinterpret_cast<ieee1905NeighborDeviceListTLV_t*>(tlv), &list) == 0)
                    print_tlv_legacy_neighbor(list);
                break;
            }
            case IEEE1905_TLV_TYPE_VENDOR_SPECIFIC: {
                uint8_t oui[3];
                std::vector<uint8_t> val(kVendorValueMax);
                int val_len = 0;
                if (IEEE19051_ParseTlvVendorSpecific(
                        reinterpret_cast<ieee1905VendorSpecificHeaderTLV_t*>(tlv), oui, val.data(),
                        &val_len) == 0)
                    print_tlv_vendor_specific(oui, val.data(), val_len);
                break;
            }
            default:
                break;
        }
    }
    print_wsc_configuration(config);
    return 0;
}
