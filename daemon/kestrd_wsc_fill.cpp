#include "daemon/kestrd_wsc_fill.h"

#include "port/19051_port.h"

namespace kestr::fill {

namespace {

// A device-port getter writes the value and returns its length on the wire.
template <typename Record>
void from_getter(Record* r, int (*getter)(u_int8_t*, int), int room) {
    const int n = getter(r->val, room);
    wsc::set_length(r, n < 0 ? 0 : static_cast<size_t>(n));
}

}  // namespace

void identity(wsc_configuration_t* c) {
    from_getter(&c->manufacturer, IEEE19051Port_GetManufacturer, 64);
    from_getter(&c->model_name, IEEE19051Port_GetModelName, 32);
    from_getter(&c->model_number, IEEE19051Port_GetModelNumber, 32);
    from_getter(&c->serial_number, IEEE19051Port_GetSerialNumber, 32);
    from_getter(&c->primary_device_type, IEEE19051Port_GetDeviceType, 8);
    from_getter(&c->device_name, IEEE19051Port_GetDeviceName, 32);
    from_getter(&c->os_version, IEEE19051Port_GetOsVersion, 4);
    from_getter(&c->vendor_extension, IEEE19051Port_GetVendorExtension, 1024);
}

void constants(wsc_configuration_t* c, Band band) {
    wsc::set(&c->authentication_type_flags, 0);
    wsc::set(&c->encryption_type_flags, 0);
    wsc::set(&c->configuration_methods, 0);
    wsc::set(&c->connectioin_type_flags, 0);
    wsc::set(&c->association_state, 0);
    wsc::set(&c->configuration_error, 0);
    wsc::set(&c->pwd_id, DevicePasswordID_PushButton);
    wsc::set(&c->rf_bands, band.rf_bands());
}

}  // namespace kestr::fill
