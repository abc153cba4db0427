#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "port/19051_port.h"
#include "port/comlib/libxmldbc.h"
#include "tests/support/capture.h"
#include "tests/support/netns.h"
#include "tests/support/xmldbd.h"

namespace {

using kestr::test::capture_output;
using kestr::test::db_get;
using kestr::test::db_set;
using kestr::test::XmldbdProcess;

const std::string kNotAMac =
    "INI entry da doesn't seem to be a valid MAC address - xx:xx:xx:xx:xx:xx\n";

// Runs `fn` in a child process and returns its exit status, so that every
// case starts with the role cache empty.
int in_child(const std::function<int()>& fn) {
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0)
        _exit(fn());
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(DevicePort, RoleIsReadOnceUnlessUnknown) {
    KESTR_ENTER_NAMESPACES({.bridge = false});
    XmldbdProcess db;
    ASSERT_TRUE(db.ok());
    const char* kRole = "/device/apcloning/role";
    struct Case {
        const char* stored;  // nullptr: no node
        RoleType_e first;
        const char* then_stored;
        RoleType_e second;  // a known role is kept, an unknown one read again
    } cases[] = {
        {"1", RoleTypeEnrollee, "0", RoleTypeEnrollee},
        {"0", RoleTypeRegistrar, "1", RoleTypeRegistrar},
        {nullptr, RoleTypeRegistrar, "1", RoleTypeRegistrar},
        {"  +1", RoleTypeEnrollee, "0", RoleTypeEnrollee},
        {"1x", RoleTypeEnrollee, "0", RoleTypeEnrollee},
        {"abc", RoleTypeRegistrar, "1", RoleTypeRegistrar},
        {"2", RoleTypeUnknown, "1", RoleTypeEnrollee},
        {"7", RoleTypeUnknown, "0", RoleTypeRegistrar},
        {"-1", RoleTypeUnknown, "7", RoleTypeUnknown},
        {"4294967296", RoleTypeUnknown, "1", RoleTypeEnrollee},
    };
    for (const auto& c : cases) {
        xmldbc_del(nullptr, 0, kRole);
        if (c.stored != nullptr)
            db_set(kRole, c.stored);
        const int got = in_child([&] {
            const int first = IEEE19051Port_GetRole();
            db_set(kRole, c.then_stored);
            return first * 10 + IEEE19051Port_GetRole();
        });
        EXPECT_EQ(got, c.first * 10 + c.second) << (c.stored ? c.stored : "(none)");
    }
    db.stop();
    // No database at all: an empty value, so registrar.
    EXPECT_EQ(in_child([] { return IEEE19051Port_GetRole(); }), RoleTypeRegistrar);
    EXPECT_EQ(IEEE19051Port_IsSupport5G(), 1);
    EXPECT_EQ(IEEE19051Port_IsSupport2P4G(), 1);
}

TEST(DevicePort, IdentityTexts) {
    using Getter = int (*)(u_int8_t*, int);
    struct Case {
        Getter fn;
        int buflen;
        const char* copied;
        int result;
    } cases[] = {
        {IEEE19051Port_GetManufacturer, 64, "Vexor", 5},
        {IEEE19051Port_GetManufacturer, 3, "Vex", 3},
        {IEEE19051Port_GetModelName, 32, "ModelNameHere", 13},
        {IEEE19051Port_GetModelNumber, 32, "ModelNumberHere", 15},
        {IEEE19051Port_GetSerialNumber, 32, "SerialNumberHere", 16},
        {IEEE19051Port_GetSerialNumber, 16, "SerialNumberHere", 16},
        {IEEE19051Port_GetDeviceName, 32, "MXR-K520EN-B1", 13},
        {IEEE19051Port_GetVendorExtension, 1024, "unknown", 7},
        {IEEE19051Port_GetDeviceType, 8, "unknown", 8},
        {IEEE19051Port_GetDeviceType, 4, "unkn", 4},
        {IEEE19051Port_GetOsVersion, 4, "0000", 4},
        {IEEE19051Port_GetOsVersion, 10, "0000", 10},
        {IEEE19051Port_GetModelName, 0, "", 0},
        {IEEE19051Port_GetModelName, -1, "", -1},
    };
    for (const auto& c : cases) {
        std::array<u_int8_t, 1100> buf;
        buf.fill(0xEE);
        EXPECT_EQ(c.fn(buf.data(), c.buflen), c.result) << c.copied;
        const size_t n = std::strlen(c.copied);
        EXPECT_EQ(std::string(buf.begin(), buf.begin() + n), c.copied);
        EXPECT_EQ(buf[n], 0xEE) << "no terminator and nothing beyond the text: " << c.copied;
    }
    EXPECT_EQ(IEEE19051Port_GetManufacturer(nullptr, 64), -1);
}

TEST(DevicePort, AlMacFallsBackToWlanMac) {
    KESTR_ENTER_NAMESPACES({.bridge = false});
    XmldbdProcess db;
    ASSERT_TRUE(db.ok());
    struct Case {
        const char* appmac;  // nullptr: no node
        const char* wlanmac;
        std::array<uint8_t, 6> mac;
        bool complaint;
    } cases[] = {
        {"00:11:22:33:44:55", "66:77:88:99:aa:bb", {0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, false},
        {"", "00:11:22:33:44:55", {0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, false},
        {nullptr, "2:4B:52:0:0:1", {0x02, 0x4B, 0x52, 0x00, 0x00, 0x01}, false},
        // Not empty, so no fallback: the address is left as it was.
        {"garbage", "00:11:22:33:44:55", {0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA}, true},
        {nullptr, nullptr, {0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA}, true},
    };
    for (const auto& c : cases) {
        xmldbc_del(nullptr, 0, "/runtime/devdata");
        if (c.appmac != nullptr)
            db_set("/runtime/devdata/appmac", c.appmac);
        if (c.wlanmac != nullptr)
            db_set("/runtime/devdata/wlanmac", c.wlanmac);
        struct ether_addr mac;
        std::memset(&mac, 0xAA, sizeof mac);
        int rc = -1;
        const auto out = capture_output([&] { rc = IEEE19051Port_GetAlMac(&mac); });
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(std::memcmp(mac.ether_addr_octet, c.mac.data(), 6), 0)
            << (c.appmac ? c.appmac : "(none)");
        if (c.complaint) {
            EXPECT_NE(out.out.find("sscanf error\n"), std::string::npos);
            EXPECT_NE(out.out.find(kNotAMac), std::string::npos);
        } else {
            EXPECT_EQ(out.out, "");
        }
    }
    EXPECT_EQ(IEEE19051Port_GetAlMac(nullptr), -1);
}

TEST(DevicePort, MacAndUuidOfTheBridge) {
    KESTR_ENTER_NAMESPACES();
    const auto br0 = kestr::test::interface_mac("br0");
    char name[] = "br0";
    struct ether_addr mac {};
    EXPECT_EQ(IEEE19051Port_GetMacByInterface(name, &mac), 0);
    EXPECT_EQ(std::vector<uint8_t>(mac.ether_addr_octet, mac.ether_addr_octet + 6), br0);

    std::array<u_int8_t, 16> uuid{};
    EXPECT_EQ(IEEE19051Port_GetUUID(uuid.data(), 16), 16);
    EXPECT_EQ(std::vector<uint8_t>(uuid.begin(), uuid.begin() + 10), std::vector<uint8_t>(10, 0));
    EXPECT_EQ(std::vector<uint8_t>(uuid.begin() + 10, uuid.end()), br0);
    std::array<u_int8_t, 8> shorter;
    shorter.fill(0x5A);
    EXPECT_EQ(IEEE19051Port_GetUUID(shorter.data(), 8), 8);
    EXPECT_EQ(shorter[0], 0x5A);
    EXPECT_EQ(shorter[1], 0x5A);
    EXPECT_EQ(std::vector<uint8_t>(shorter.begin() + 2, shorter.end()), br0);
    EXPECT_EQ(IEEE19051Port_GetUUID(shorter.data(), 5), -1);

    char missing[] = "nosuch0";
    int rc = 0;
    auto out = capture_output([&] { rc = IEEE19051Port_GetMacByInterface(missing, &mac); });
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(out.out, "Error running ioctl/SIOCGIFHWADDR\n");
    EXPECT_EQ(IEEE19051Port_GetMacByInterface(nullptr, &mac), -1);
    EXPECT_EQ(IEEE19051Port_GetMacByInterface(name, nullptr), -1);

    kestr::test::run_shell("ip link del br0");
    uuid.fill(0x77);
    out = capture_output([&] { rc = IEEE19051Port_GetUUID(uuid.data(), 16); });
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(out.out, "Error running ioctl/SIOCGIFHWADDR\n");
    EXPECT_EQ(uuid[15], 0x77);
}

// The device schema with the 5 GHz profile listed before the 2.4 GHz one, so
// the walk has to follow the uids rather than positions.
std::string schema(const std::string& entry5g, const std::string& entry24g,
                   bool with_5g_radio = true) {
    return "<db>"
           "<phyinf><uid>ETH-1</uid></phyinf>"
           "<phyinf><uid>BAND24G-1.1</uid><wifi>WIFI-1</wifi></phyinf>" +
           std::string(with_5g_radio ? "<phyinf><uid>BAND5G-1.1</uid><wifi>WIFI-2</wifi></phyinf>"
                                     : "") +
           "<wifi><entry><uid>WIFI-2</uid>" + entry5g + "</entry>" + "<entry><uid>WIFI-1</uid>" +
           entry24g + "</entry></wifi></db>";
}

std::string profile(const char* ssid, const char* auth, const char* encr) {
    std::string p = std::string("<ssid>") + ssid + "</ssid>";
    if (auth != nullptr)
        p += std::string("<authtype>") + auth + "</authtype>";
    if (encr != nullptr)
        p += std::string("<encrtype>") + encr + "</encrtype>";
    return p +
           "<nwkey><psk><key>psk-secret</key></psk>"
           "<wep><key>wep-first</key><key>wep-second</key></wep></nwkey>";
}

TEST(DevicePort, EncryptSettingWalksTheSchema) {
    KESTR_ENTER_NAMESPACES({.bridge = false});
    struct Case {
        const char* auth;  // nullptr: no node
        const char* encr;
        int authtype;
        int encrtype;
        const char* pwd;  // "sentinel": left as the caller had it
    } cases[] = {
        {"WPA2PSK", "AES", 0x0022, 0x000C, "psk-secret"},
        {"WPA+2PSK", "TKIP+AES", 0x0022, 0x000C, "psk-secret"},
        {"WPAPSK", "TKIP", 0x0022, 0x000C, "psk-secret"},
        {"WPA2PSK", "WEP", 0x0022, 0x000C, "psk-secret"},
        {nullptr, nullptr, 0x0001, 0x0001, "sentinel"},
        {"", "", 0x0001, 0x0001, "sentinel"},
        {"SHARED", "WEP", 0x0001, 0x0002, "wep-first"},
        {"OPEN", "WEP", 0x0001, 0x0002, "wep-first"},
        {"wpa2psk", "AES", 0x0001, 0x0001, "sentinel"},
        {"WPA2", "wep", 0x0001, 0x0001, "sentinel"},
    };
    for (const auto& c : cases) {
        const std::string what =
            std::string(c.auth ? c.auth : "(none)") + "/" + (c.encr ? c.encr : "(none)");
        auto db = XmldbdProcess::with_xml(
            schema(profile("net-5", c.auth, c.encr), profile("net-24", "OPEN", "NONE")));
        ASSERT_TRUE(db->ok());
        EncryptSetting_t s{};
        std::strcpy(s.pwd, "sentinel");
        int rc = -1;
        const auto out = capture_output([&] { rc = IEEE19051Port_GetEncryptSetting(1, &s); });
        EXPECT_EQ(rc, 0) << what;
        EXPECT_EQ(out.out, "wifiname:WIFI-2\nwifipath:/wifi/entry:1\n") << what;
        EXPECT_STREQ(s.ssid, "net-5") << what;
        EXPECT_EQ(s.authtype, c.authtype) << what;
        EXPECT_EQ(s.encrtype, c.encrtype) << what;
        EXPECT_STREQ(s.pwd, c.pwd) << what;
    }
}

TEST(DevicePort, EncryptSettingPerBandAndWithoutRadio) {
    KESTR_ENTER_NAMESPACES({.bridge = false});
    auto db = XmldbdProcess::with_xml(
        schema(profile("net-5", "WPA2PSK", "AES"), profile("net-24", "SHARED", "WEP"), false));
    ASSERT_TRUE(db->ok());
    EncryptSetting_t s{};
    auto out = capture_output([&] { EXPECT_EQ(IEEE19051Port_GetEncryptSetting(0, &s), 0); });
    EXPECT_EQ(out.out, "wifiname:WIFI-1\nwifipath:/wifi/entry:2\n");
    EXPECT_STREQ(s.ssid, "net-24");
    EXPECT_EQ(s.encrtype, 0x0002);
    EXPECT_STREQ(s.pwd, "wep-first");

    // No 5 GHz radio: the profile uid reads as empty, which the uid look-up
    // finds at the first member past the end of the list; an open profile
    // with no SSID results.
    EncryptSetting_t none{};
    out = capture_output([&] { EXPECT_EQ(IEEE19051Port_GetEncryptSetting(1, &none), 0); });
    EXPECT_EQ(out.out, "wifiname:\nwifipath:/wifi/entry:3\n");
    EXPECT_STREQ(none.ssid, "");
    EXPECT_EQ(none.authtype, 0x0001);
    EXPECT_EQ(none.encrtype, 0x0001);
    EXPECT_EQ(IEEE19051Port_GetEncryptSetting(1, nullptr), -1);

    // No database: open, no SSID, still both lines.
    db->stop();
    EncryptSetting_t absent{};
    out = capture_output([&] { EXPECT_EQ(IEEE19051Port_GetEncryptSetting(1, &absent), 0); });
    EXPECT_EQ(out.out, "wifiname:\nwifipath:\n");
    EXPECT_EQ(absent.authtype, 0x0001);
}

TEST(DevicePort, SettersWriteTheBackupEntryAndCount) {
    KESTR_ENTER_NAMESPACES({.bridge = false});
    XmldbdProcess db;
    ASSERT_TRUE(db.ok());
    const std::string b5 = "/runtime/apcloning/BAND_5G/backup_setting:3";
    const std::string b24 = "/runtime/apcloning/BAND_2P4G/backup_setting:1";

    const std::pair<u_int16_t, const char*> auth[] = {
        {0x0001, "OPEN"},     {0x0002, "OPEN"}, {0x0020, "WPA+2PSK"},
        {0x0022, "WPA+2PSK"}, {0x0010, "OPEN"}, {0xFFFF, "OPEN"},
    };
    for (const auto& [type, text] : auth) {
        EXPECT_EQ(IEEE19051Port_SetAuthType(1, 3, type), 0);
        EXPECT_EQ(db_get(b5 + "/authtype"), text) << type;
    }
    const std::pair<u_int16_t, const char*> encr[] = {
        {0x0001, "NONE"},     {0x0002, "WEP"},      {0x0003, "NONE"}, {0x0004, "TKIP+AES"},
        {0x0008, "TKIP+AES"}, {0x000C, "TKIP+AES"}, {0x0010, "NONE"},
    };
    for (const auto& [type, text] : encr) {
        EXPECT_EQ(IEEE19051Port_SetEncrType(0, 1, type), 0);
        EXPECT_EQ(db_get(b24 + "/encrtype"), text) << type;
    }

    struct Text {
        std::string bytes;
        int buflen;
        int result;
        std::string stored;  // before the database request's 510-character cut
    } texts[] = {
        {"abcdef", 4, 0, "abcd"},
        {std::string("ab\0cd", 5), 5, 0, "ab"},
        {"x", 0, 0, ""},
        {"refused", 1025, -1, "before"},
        {"refused", -1, -1, "before"},
        {std::string(1024, 'y'), 1024, 0, std::string(1023, 'y')},
    };
    for (auto set : {IEEE19051Port_SetSSID, IEEE19051Port_SetNetworkKey}) {
        const std::string node = b5 + (set == IEEE19051Port_SetSSID ? "/ssid" : "/key");
        for (const auto& t : texts) {
            db_set(node, "before");
            std::vector<u_int8_t> buf(t.bytes.begin(), t.bytes.end());
            buf.resize(2048, 'z');  // nothing beyond buflen may be taken
            EXPECT_EQ(set(1, 3, buf.data(), t.buflen), t.result) << node << " " << t.buflen;
            const std::string expected = t.stored.substr(0, 510 - node.size() - 1);
            EXPECT_EQ(db_get(node), expected) << node << " " << t.buflen;
        }
    }

    EXPECT_EQ(IEEE19051Port_SetDone(1, 1), 0);
    EXPECT_EQ(IEEE19051Port_SetDone(0, 0), 0);
    EXPECT_EQ(db_get("/runtime/apcloning/BAND_5G/done"), "1");
    EXPECT_EQ(db_get("/runtime/apcloning/BAND_2P4G/done"), "0");
    EXPECT_EQ(IEEE19051Port_SetDone(0, 7), 0);
    EXPECT_EQ(db_get("/runtime/apcloning/BAND_2P4G/done"), "1");

    EXPECT_EQ(IEEE19051Port_GetCount(1), 0);
    IEEE19051Port_SetCount(1, 12);
    EXPECT_EQ(db_get("/runtime/apcloning/BAND_5G/count"), "12");
    EXPECT_EQ(IEEE19051Port_GetCount(1), 12);
    EXPECT_EQ(IEEE19051Port_GetCount(0), 0);
    for (const int n : {-3, 2147483647}) {
        IEEE19051Port_SetCount(0, n);
        EXPECT_EQ(IEEE19051Port_GetCount(0), n);
    }
}

}  // namespace
