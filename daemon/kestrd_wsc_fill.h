// Filling WSC message records, shared by the enrollee's M1 and the
// registrar's M2. A field set here is marked present; byte strings never
// exceed their array.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstring>

#include "port/19051_port.h"
#include "wsc/wsc.h"

namespace kestr::fill {

template <typename Record>
void bytes(Record* r, const void* src, size_t len) {
    if (len > sizeof r->val)
        len = sizeof r->val;
    std::memcpy(r->val, src, len);
    r->valid_len = static_cast<u_int16_t>(len);
    r->valid = 1;
}

template <typename Record, typename Value>
void number(Record* r, Value v) {
    r->val = v;
    r->valid = 1;
}

// A device-port getter writes the value and returns its length on the wire.
template <typename Record>
void from_getter(Record* r, int (*getter)(u_int8_t*, int), int room) {
    const int n = getter(r->val, room);
    r->valid_len = static_cast<u_int16_t>(n < 0 ? 0 : n);
    r->valid = 1;
}

// The device's identity texts, in the rooms both messages give them.
inline void identity(wsc_configuration_t* c) {
    from_getter(&c->manufacturer, IEEE19051Port_GetManufacturer, 64);
    from_getter(&c->model_name, IEEE19051Port_GetModelName, 32);
    from_getter(&c->model_number, IEEE19051Port_GetModelNumber, 32);
    from_getter(&c->serial_number, IEEE19051Port_GetSerialNumber, 32);
    from_getter(&c->primary_device_type, IEEE19051Port_GetDeviceType, 8);
    from_getter(&c->device_name, IEEE19051Port_GetDeviceName, 32);
    from_getter(&c->os_version, IEEE19051Port_GetOsVersion, 4);
    from_getter(&c->vendor_extension, IEEE19051Port_GetVendorExtension, 1024);
}

// The fields both messages carry as constants, and RF Bands for `freqBand`
// (1 for band 0, 2 for any other).
inline void constants(wsc_configuration_t* c, int freqBand) {
    number(&c->authentication_type_flags, 0);
    number(&c->encryption_type_flags, 0);
    number(&c->configuration_methods, 0);
    number(&c->connectioin_type_flags, 0);
    number(&c->association_state, 0);
    number(&c->configuration_error, 0);
    number(&c->pwd_id, DevicePasswordID_PushButton);
    number(&c->rf_bands, freqBand == 0 ? RFBands_2P4G : RFBands_5G);
}

}  // namespace kestr::fill
