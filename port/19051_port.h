// Device settings port: the one place where the cloning procedure meets the
// particular device.
//
// It answers which role the device plays, the identity texts reported in M1
// and M2, the device's MAC addresses, and the current Wi-Fi security settings
// of a band; and it writes cloned settings and progress markers where the
// rest of the firmware reads them. Everything device-specific is read from
// and written to the configuration database; its trouble never shows as an
// error here, only as empty values (role registrar, count 0, open settings).
#pragma once

#include <net/ethernet.h>
#include <sys/types.h>

#include <cstddef>

#include "port/util.h"

typedef enum {
    RoleTypeRegistrar = 0,
    RoleTypeEnrollee = 1,
    RoleTypeUnknown = 2,
} RoleType_e;

// WSC Authentication Type and Encryption Type values, the numbers in which
// Wi-Fi security settings travel and are kept.
enum : u_int16_t {
    WSC_AUTH_OPEN = 0x0001,
    WSC_AUTH_WPAPSK = 0x0002,
    WSC_AUTH_WPA2PSK = 0x0020,
    WSC_AUTH_WPA_WPA2PSK = WSC_AUTH_WPAPSK | WSC_AUTH_WPA2PSK,  // 0x0022
    WSC_ENCR_NONE = 0x0001,
    WSC_ENCR_WEP = 0x0002,
    WSC_ENCR_TKIP = 0x0004,
    WSC_ENCR_AES = 0x0008,
    WSC_ENCR_TKIP_AES = WSC_ENCR_TKIP | WSC_ENCR_AES,  // 0x000C
};

// Wi-Fi security settings of one band as read from the database.
typedef struct {
    char ssid[256];  // NUL-terminated
    char pwd[256];   // WPA passphrase or PSK, or the first WEP key; NUL-terminated
    int authtype;    // WSC_AUTH_OPEN or WSC_AUTH_WPA_WPA2PSK
    int encrtype;    // WSC_ENCR_NONE, WSC_ENCR_WEP or WSC_ENCR_TKIP_AES
} EncryptSetting_t;

// Longest value the setters take, and the size of their work buffers.
constexpr int kPortSetterMax = 1024;

// The role from "/device/apcloning/role", read once and kept. An empty value
// (node missing, database down) means registrar; a value other than 0 or 1
// gives RoleTypeUnknown and is read again on the next call.
RoleType_e IEEE19051Port_GetRole();
int IEEE19051Port_IsSupport5G();
int IEEE19051Port_IsSupport2P4G();

// Identity texts for M1/M2: copy the first bytes of a fixed text, without a
// terminator, and return the attribute length the caller puts on the wire.
int IEEE19051Port_GetManufacturer(u_int8_t* buf, int buflen);
int IEEE19051Port_GetModelName(u_int8_t* buf, int buflen);
int IEEE19051Port_GetModelNumber(u_int8_t* buf, int buflen);
int IEEE19051Port_GetSerialNumber(u_int8_t* buf, int buflen);
int IEEE19051Port_GetDeviceName(u_int8_t* buf, int buflen);
int IEEE19051Port_GetVendorExtension(u_int8_t* buf, int buflen);
// These two return `buflen` itself: the attribute is the caller's whole
// (cleared) field, the text padded with zero bytes.
int IEEE19051Port_GetDeviceType(u_int8_t* buf, int buflen);
int IEEE19051Port_GetOsVersion(u_int8_t* buf, int buflen);

// The AL MAC: "/runtime/devdata/appmac", or "/runtime/devdata/wlanmac" when
// that is empty. 0 (-1 only for a null `mac`); text that is not a MAC leaves
// `mac` as it was.
int IEEE19051Port_GetAlMac(struct ether_addr* mac);
int IEEE19051Port_GetMacByInterface(char* tx_interface, struct ether_addr* mac);
// Puts the MAC of br0 into the last 6 bytes of `UUID`; `UUIDlen`, or -1.
int IEEE19051Port_GetUUID(u_int8_t* UUID, int UUIDlen);

// The band's profile, found through its physical interface in /phyinf and
// its uid in /wifi/entry. The caller clears `setting`.
int IEEE19051Port_GetEncryptSetting(int is5G, EncryptSetting_t* setting);

// Cloned settings are kept under
// /runtime/apcloning/BAND_5G|BAND_2P4G/backup_setting:<count>/...; the band's
// count node holds the number of the last complete one.
int IEEE19051Port_GetCount(int is5G);
void IEEE19051Port_SetCount(int is5G, int count);
int IEEE19051Port_SetSSID(int is5G, int count, const u_int8_t* buf, int buflen);
int IEEE19051Port_SetNetworkKey(int is5G, int count, const u_int8_t* buf, int buflen);
int IEEE19051Port_SetAuthType(int is5G, int count, u_int16_t type);
int IEEE19051Port_SetEncrType(int is5G, int count, u_int16_t type);
int IEEE19051Port_SetDone(int is5G, int isDone);

// The path of the member of list `node` whose uid child equals `uid_value`
// (e.g. "/phyinf:2"). Members 1 to 63 are tried in order; the first match
// wins. 0 when found; -1 when none matches or a read fails.
ssize_t xmldbc_getpathbyuid(const char* node, const char* uid_value, char* path_buf, size_t size);

namespace kestr {

// The bridge every frame of the daemon goes out and comes in on.
constexpr const char* kBridge = "br0";

// The MAC address of interface `name`; all zero when it cannot be read (the
// error line says so).
Mac interface_mac(const char* name);

}  // namespace kestr
