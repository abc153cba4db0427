#include "port/19051_port.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "port/comlib/libxmldbc.h"
#include "port/common/bytes.h"
#include "port/common/unique_fd.h"
#include "port/util.h"

namespace {

// The device's own schema: each band's physical interface carries one of
// these uids, and its "wifi" child names the uid of its /wifi/entry profile.
constexpr const char* kPhyinfList = "/phyinf";
constexpr const char* kWifiList = "/wifi/entry";
constexpr const char* kPhyinf5G = "BAND5G-1.1";
constexpr const char* kPhyinf24G = "BAND24G-1.1";

constexpr const char* kRoleNode = "/device/apcloning/role";
constexpr const char* kAppMacNode = "/runtime/devdata/appmac";
constexpr const char* kWlanMacNode = "/runtime/devdata/wlanmac";

constexpr const char* kBand5G = "/runtime/apcloning/BAND_5G";
constexpr const char* kBand24G = "/runtime/apcloning/BAND_2P4G";
constexpr const char* kBackup = "/backup_setting";

constexpr size_t kSmallBuf = 128;    // role, MAC and count values
constexpr size_t kSettingBuf = 256;  // profile paths and texts
constexpr size_t kUidPathBuf = 128;  // "<list>:<i>/uid"
constexpr size_t kUidValueBuf = 32;  // a uid value; 31 characters compared
constexpr int kUidMembers = 63;      // list members searched by uid

// Cached role. Only the main thread (before the others start) and then the
// receive thread use it; atomic so that this holds without a lock regardless.
std::atomic<int> role{RoleTypeUnknown};

const char* band_prefix(int is5G) {
    return is5G ? kBand5G : kBand24G;
}

// Reads `node` into a cleared buffer: a failed or empty read is "".
void db_read(const char* node, char* buf, size_t size) {
    std::memset(buf, 0, size);
    xmldbc_get_wb(nullptr, 0, node, buf, size);
}

void db_write(const char* node, const char* value) {
    xmldbc_set(nullptr, 0, node, value);
}

// Decimal text, leading blanks and a sign allowed, no digits giving 0.
long decimal(const char* text) {
    return std::strtol(text, nullptr, 10);
}

// Copies min(buflen, text length) bytes of a fixed identity text, no NUL.
int copy_identity(u_int8_t* buf, int buflen, std::string_view text) {
    if (buf == nullptr || buflen < 0)
        return -1;
    const size_t n = std::min(static_cast<size_t>(buflen), text.size());
    std::memcpy(buf, text.data(), n);
    return static_cast<int>(n);
}

// "<band>/backup_setting:<count><leaf>" in a cleared 1024-byte buffer.
struct BackupPath {
    char text[kPortSetterMax];
    BackupPath(int is5G, int count, const char* leaf) {
        std::memset(text, 0, sizeof text);
        std::snprintf(text, sizeof text, "%s%s:%d%s", band_prefix(is5G), kBackup, count, leaf);
    }
};

// A value of at most `buflen` characters, stopping at a NUL in `buf`.
int set_backup_text(int is5G, int count, const u_int8_t* buf, int buflen, const char* leaf) {
    if (static_cast<unsigned>(buflen) > static_cast<unsigned>(kPortSetterMax))
        return -1;
    if (buf == nullptr && buflen > 0)
        return -1;
    char value[kPortSetterMax];
    std::memset(value, 0, sizeof value);
    const kestr::Span<const u_int8_t> text(buf,
                                           std::min(static_cast<size_t>(buflen), sizeof value - 1));
    size_t n = 0;
    for (const u_int8_t c : text) {
        if (c == '\0')
            break;
        value[n++] = static_cast<char>(c);
    }
    db_write(BackupPath(is5G, count, leaf).text, value);
    return 0;
}

bool is_psk_family(const char* auth) {
    return std::strcmp(auth, "WPA+2PSK") == 0 || std::strcmp(auth, "WPA2PSK") == 0 ||
           std::strcmp(auth, "WPAPSK") == 0;
}

}  // namespace

ssize_t xmldbc_getpathbyuid(const char* node, const char* uid_value, char* path_buf, size_t size) {
    if (node == nullptr || uid_value == nullptr || (path_buf == nullptr && size > 0))
        return -1;
    for (int i = 1; i <= kUidMembers; ++i) {
        char uid_path[kUidPathBuf];
        std::snprintf(uid_path, sizeof uid_path, "%s:%d/uid", node, i);
        char value[kUidValueBuf];
        std::memset(value, 0, sizeof value);
        if (xmldbc_get_wb(nullptr, 0, uid_path, value, sizeof value) != 0)
            return -1;
        if (std::strcmp(value, uid_value) == 0) {
            if (size > 0)
                std::snprintf(path_buf, size, "%s:%d", node, i);
            return 0;
        }
    }
    return -1;
}

RoleType_e IEEE19051Port_GetRole() {
    int cached = role.load();
    if (cached == RoleTypeUnknown) {
        char value[kSmallBuf];
        db_read(kRoleNode, value, sizeof value);
        const long stored = decimal(value);
        cached =
            stored >= 0 && stored < RoleTypeUnknown ? static_cast<int>(stored) : RoleTypeUnknown;
        role.store(cached);
    }
    return static_cast<RoleType_e>(cached);
}

int IEEE19051Port_IsSupport5G() {
    return 1;
}
int IEEE19051Port_IsSupport2P4G() {
    return 1;
}

int IEEE19051Port_GetManufacturer(u_int8_t* buf, int buflen) {
    return copy_identity(buf, buflen, "Vexor");
}
int IEEE19051Port_GetModelName(u_int8_t* buf, int buflen) {
    return copy_identity(buf, buflen, "ModelNameHere");
}
int IEEE19051Port_GetModelNumber(u_int8_t* buf, int buflen) {
    return copy_identity(buf, buflen, "ModelNumberHere");
}
int IEEE19051Port_GetSerialNumber(u_int8_t* buf, int buflen) {
    return copy_identity(buf, buflen, "SerialNumberHere");
}
int IEEE19051Port_GetDeviceName(u_int8_t* buf, int buflen) {
    return copy_identity(buf, buflen, "MXR-K520EN-B1");
}
int IEEE19051Port_GetVendorExtension(u_int8_t* buf, int buflen) {
    return copy_identity(buf, buflen, "unknown");
}
int IEEE19051Port_GetDeviceType(u_int8_t* buf, int buflen) {
    return copy_identity(buf, buflen, "unknown") < 0 ? -1 : buflen;
}
int IEEE19051Port_GetOsVersion(u_int8_t* buf, int buflen) {
    return copy_identity(buf, buflen, "0000") < 0 ? -1 : buflen;
}

int IEEE19051Port_GetAlMac(struct ether_addr* mac) {
    if (mac == nullptr)
        return -1;
    char text[kSmallBuf];
    db_read(kAppMacNode, text, sizeof text);
    if (text[0] == '\0')
        db_read(kWlanMacNode, text, sizeof text);
    // Text that is not a MAC leaves `mac` alone; the conversion says why.
    mac_str_to_etheraddr(text, mac);
    return 0;
}

int IEEE19051Port_GetMacByInterface(char* tx_interface, struct ether_addr* mac) {
    if (tx_interface == nullptr || mac == nullptr)
        return -1;
    // The socket only carries the interface request.
    kestr::UniqueFd fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 255));
    if (!fd.valid())
        return -1;
    struct ifreq ifr;
    std::memset(&ifr, 0, sizeof ifr);
    std::strncpy(ifr.ifr_name, tx_interface, IFNAMSIZ - 1);
    if (ioctl(fd.get(), SIOCGIFHWADDR, &ifr) < 0) {
        std::puts("Error running ioctl/SIOCGIFHWADDR");
        return -1;
    }
    std::memcpy(mac->ether_addr_octet, ifr.ifr_hwaddr.sa_data, ETH_ALEN);
    return 0;
}

kestr::Mac kestr::interface_mac(const char* name) {
    struct ether_addr mac {};
    IEEE19051Port_GetMacByInterface(const_cast<char*>(name), &mac);
    return Mac::of(mac);
}

int IEEE19051Port_GetUUID(u_int8_t* UUID, int UUIDlen) {
    if (UUID == nullptr || UUIDlen < ETH_ALEN)
        return -1;
    char bridge[] = "br0";
    struct ether_addr mac;
    if (IEEE19051Port_GetMacByInterface(bridge, &mac) != 0)
        return -1;
    // The MAC is the UUID's last six bytes; the caller's bytes before it stay.
    kestr::ByteWriter(kestr::MutableBytes(UUID, static_cast<size_t>(UUIDlen))
                          .subspan(static_cast<size_t>(UUIDlen - ETH_ALEN)))
        .bytes(mac.ether_addr_octet, ETH_ALEN);
    return UUIDlen;
}

int IEEE19051Port_GetEncryptSetting(int is5G, EncryptSetting_t* setting) {
    if (setting == nullptr)
        return -1;
    char path[kSettingBuf];
    auto compose = [&path](const char* format, const char* prefix) {
        std::memset(path, 0, sizeof path);
        std::snprintf(path, sizeof path, format, prefix);
        return path;
    };

    // A failed look-up leaves its path empty; the reads below then land on
    // nodes under the root and come back empty, i.e. an open profile.
    char phyinfpath[kSettingBuf] = {};
    xmldbc_getpathbyuid(kPhyinfList, is5G ? kPhyinf5G : kPhyinf24G, phyinfpath, sizeof phyinfpath);
    char wifiname[kSettingBuf];
    db_read(compose("%s/wifi", phyinfpath), wifiname, sizeof wifiname);
    std::printf("wifiname:%s\n", wifiname);

    char wifipath[kSettingBuf] = {};
    xmldbc_getpathbyuid(kWifiList, wifiname, wifipath, sizeof wifipath);
    std::printf("wifipath:%s\n", wifipath);

    xmldbc_get_wb(nullptr, 0, compose("%s/ssid", wifipath), setting->ssid, sizeof setting->ssid);
    char authtype[kSettingBuf];
    char encrtype[kSettingBuf];
    db_read(compose("%s/authtype", wifipath), authtype, sizeof authtype);
    db_read(compose("%s/encrtype", wifipath), encrtype, sizeof encrtype);
    if (authtype[0] == '\0')
        std::strcpy(authtype, "OPEN");
    if (encrtype[0] == '\0')
        std::strcpy(encrtype, "NONE");

    // Every PSK profile is offered as WPA-PSK + WPA2-PSK with TKIP + AES,
    // whatever cipher text it carries.
    if (is_psk_family(authtype)) {
        setting->authtype = WSC_AUTH_WPA_WPA2PSK;
        setting->encrtype = WSC_ENCR_TKIP_AES;
        xmldbc_get_wb(nullptr, 0, compose("%s/nwkey/psk/key", wifipath), setting->pwd,
                      sizeof setting->pwd);
    } else if (std::strcmp(encrtype, "WEP") == 0) {
        setting->authtype = WSC_AUTH_OPEN;
        setting->encrtype = WSC_ENCR_WEP;
        xmldbc_get_wb(nullptr, 0, compose("%s/nwkey/wep/key:1", wifipath), setting->pwd,
                      sizeof setting->pwd);
    } else {
        setting->authtype = WSC_AUTH_OPEN;
        setting->encrtype = WSC_ENCR_NONE;
    }
    return 0;
}

int IEEE19051Port_GetCount(int is5G) {
    char node[kSmallBuf];
    std::snprintf(node, sizeof node, "%s/count", band_prefix(is5G));
    char value[kSmallBuf];
    db_read(node, value, sizeof value);
    return static_cast<int>(decimal(value));
}

void IEEE19051Port_SetCount(int is5G, int count) {
    char node[kSmallBuf];
    std::snprintf(node, sizeof node, "%s/count", band_prefix(is5G));
    char value[kPortSetterMax];
    std::memset(value, 0, sizeof value);
    std::snprintf(value, sizeof value, "%d", count);
    db_write(node, value);
}

int IEEE19051Port_SetSSID(int is5G, int count, const u_int8_t* buf, int buflen) {
    return set_backup_text(is5G, count, buf, buflen, "/ssid");
}

int IEEE19051Port_SetNetworkKey(int is5G, int count, const u_int8_t* buf, int buflen) {
    return set_backup_text(is5G, count, buf, buflen, "/key");
}

int IEEE19051Port_SetAuthType(int is5G, int count, u_int16_t type) {
    const bool wpa2 = type == WSC_AUTH_WPA2PSK || type == WSC_AUTH_WPA_WPA2PSK;
    db_write(BackupPath(is5G, count, "/authtype").text, wpa2 ? "WPA+2PSK" : "OPEN");
    return 0;
}

int IEEE19051Port_SetEncrType(int is5G, int count, u_int16_t type) {
    const char* text = "NONE";
    switch (type) {
        case WSC_ENCR_WEP:
            text = "WEP";
            break;
        case WSC_ENCR_TKIP:
        case WSC_ENCR_AES:
        case WSC_ENCR_TKIP_AES:
            text = "TKIP+AES";
            break;
        default:
            break;
    }
    db_write(BackupPath(is5G, count, "/encrtype").text, text);
    return 0;
}

int IEEE19051Port_SetDone(int is5G, int isDone) {
    char node[kSmallBuf];
    std::snprintf(node, sizeof node, "%s/done", band_prefix(is5G));
    db_write(node, isDone ? "1" : "0");
    return 0;
}
