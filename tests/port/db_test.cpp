// The database client and the device settings port against the project's own
// stand-in daemon, in private namespaces: the default socket lies on a
// private /var/run, and br0 is a bridge of the test's own.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "port/19051_port.h"
#include "port/comlib/libxmldbc.h"
#include "tests/support/netns.h"
#include "tests/support/xmldbd.h"

namespace {

using kestr::test::db_get;
using kestr::test::db_set;
using kestr::test::XmldbdProcess;

// The value of `node` read into a buffer of exactly `size` bytes, up to its
// terminator, which must lie inside the buffer.
std::string get_wb(const char* node, size_t size, sock_t sn = nullptr) {
    std::vector<char> buf(size, '#');
    if (xmldbc_get_wb(sn, 0, node, buf.data(), size) != 0)
        return "<failed>";
    return std::string(buf.data(), strnlen(buf.data(), size));
}

TEST(DbClient, AgainstTheStandInDaemon) {
    KESTR_ENTER_NAMESPACES({.bridge = false});
    // A value far larger than a socket buffer reaches the client in pieces.
    const std::string long_value(300000, 'v');
    std::string xml = "<db><long>" + long_value + "</long>";
    for (int i = 1; i <= 64; ++i) {
        const std::string uid = i == 2 || i == 4 ? "D" : "u" + std::to_string(i);
        xml += "<l><uid>" + (i == 5 ? "" : uid) + "</uid></l>";
    }
    auto db = XmldbdProcess::with_xml(xml + "</db>");
    ASSERT_TRUE(db->ok());

    EXPECT_EQ(get_wb("/long", 400000), long_value);
    EXPECT_EQ(db_get("/long"), long_value);                 // to a stream, piece by piece
    EXPECT_EQ(get_wb("/long", 100), std::string(99, 'v'));  // cut, ended inside the buffer
    EXPECT_EQ(get_wb("/missing", 8), "");
    // "node value" is cut to 510 characters: "/big", a blank and 505 more.
    EXPECT_EQ(xmldbc_set(nullptr, 0, "/big", std::string(600, 'x').c_str()), 0);
    EXPECT_EQ(get_wb("/big", 1024), std::string(505, 'x'));
    EXPECT_EQ(xmldbc_set(nullptr, 0, "/big", ""), 0);
    EXPECT_EQ(get_wb("/big", 1024), "");

    // Members 1 to 63 are searched in order, past one without uid; "keep":
    // not found, the caller's path untouched.
    const std::pair<const char*, std::string> lookups[] = {
        {"u63", "/l:63"}, {"u64", "keep"}, {"D", "/l:2"}, {"u6", "/l:6"}};
    for (const auto& [uid, want] : lookups) {
        char path[16] = "keep";
        EXPECT_EQ(xmldbc_getpathbyuid("/l", uid, path, sizeof path), want == "keep" ? -1 : 0);
        EXPECT_EQ(path, want) << uid;
    }

    // No daemon: every pattern fails at once.
    const sock_t none = "/var/run/none.sock";
    EXPECT_EQ(get_wb("/long", 8, none), "<failed>");
    EXPECT_EQ(xmldbc_set(none, 0, "/a", "1"), -1);
    EXPECT_EQ(xmldbc_get(none, 0, "/a", stdout), -1);
    db->stop();
    EXPECT_EQ(get_wb("/long", 8), "<failed>");
}

TEST(DevicePort, IdentityTexts) {
    // {getter, buflen, bytes copied, result}
    // clang-format off
    const std::tuple<int (*)(u_int8_t*, int), int, const char*, int> rows[] = {
        {IEEE19051Port_GetManufacturer, 64, "Vexor", 5},
        {IEEE19051Port_GetManufacturer, 3, "Vex", 3},
        {IEEE19051Port_GetModelName, 32, "ModelNameHere", 13},
        {IEEE19051Port_GetModelNumber, 32, "ModelNumberHere", 15},
        {IEEE19051Port_GetSerialNumber, 32, "SerialNumberHere", 16},
        {IEEE19051Port_GetDeviceName, 32, "MXR-K520EN-B1", 13},
        {IEEE19051Port_GetVendorExtension, 1024, "unknown", 7},
        {IEEE19051Port_GetDeviceType, 8, "unknown", 8},  // the caller's whole field
        {IEEE19051Port_GetOsVersion, 4, "0000", 4}, {IEEE19051Port_GetOsVersion, 2, "00", 2}};
    // clang-format on
    for (const auto& [getter, buflen, copied, result] : rows) {
        std::array<u_int8_t, 1100> buf;
        buf.fill(0xEE);
        EXPECT_EQ(getter(buf.data(), buflen), result) << copied;
        EXPECT_EQ(std::string(buf.begin(), buf.begin() + std::strlen(copied)), copied);
        EXPECT_EQ(buf[std::strlen(copied)], 0xEE) << "no terminator, nothing beyond: " << copied;
    }
}

// A band's profile; the 5 GHz one is listed first, so the walk must follow uids.
std::string profile(const char* uid, const char* band) {
    return std::string("<entry><uid>") + uid + "</uid><ssid>net-" + band +
           "</ssid><nwkey><psk><key>psk-" + band + "</key></psk><wep><key>wep-" + band +
           "</key><key>second</key></wep></nwkey></entry>";
}

TEST(DevicePort, ReadsAndWritesTheDatabase) {
    KESTR_ENTER_NAMESPACES();
    auto db = XmldbdProcess::with_xml(
        "<db><phyinf><uid>ETH-1</uid></phyinf>"
        "<phyinf><uid>BAND24G-1.1</uid><wifi>WIFI-1</wifi></phyinf>"
        "<phyinf><uid>BAND5G-1.1</uid><wifi>WIFI-2</wifi></phyinf><wifi>" +
        profile("WIFI-2", "5") + profile("WIFI-1", "24") + "</wifi></db>");
    ASSERT_TRUE(db->ok());

    // The role is read once and kept, unless it is not 0 or 1: {stored, role,
    // then stored, role}.
    const std::array<const char*, 4> roles[] = {{"1", "1", "0", "1"}, {"0", "0", "1", "0"},
                                                {"", "0", "1", "0"},  {"2", "2", "1", "1"},
                                                {"7", "2", "0", "0"}, {"-1", "2", "7", "2"}};
    for (const auto& r : roles) {
        db_set("/device/apcloning/role", r[0]);
        const pid_t pid = fork();  // a process of its own: an empty cache
        if (pid == 0) {
            const int first = IEEE19051Port_GetRole();
            db_set("/device/apcloning/role", r[2]);
            _exit(first * 10 + IEEE19051Port_GetRole());
        }
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_EQ(WEXITSTATUS(status), std::atoi(r[1]) * 10 + std::atoi(r[3])) << r[0];
    }

    // The AL MAC: appmac, wlanmac when appmac is empty; not a MAC: kept.
    const std::array<const char*, 3> macs[] = {
        {"0:11:22:33:44:55", "66:77:88:99:aa:bb", "0:11:22:33:44:55"},
        {"", "00:11:22:33:44:56", "0:11:22:33:44:56"},
        {"garbage", "00:11:22:33:44:57", "aa:aa:aa:aa:aa:aa"}};
    for (const auto& m : macs) {
        db_set("/runtime/devdata/appmac", m[0]);
        db_set("/runtime/devdata/wlanmac", m[1]);
        struct ether_addr mac;
        std::memset(&mac, 0xAA, sizeof mac);
        EXPECT_EQ(IEEE19051Port_GetAlMac(&mac), 0);
        EXPECT_STREQ(kestr::MacText(kestr::Mac::of(mac)).text, m[2]) << m[0];
    }

    // {is5G, authentication and encryption text, authtype, encrtype, key};
    // "sentinel": the key is left as the caller had it.
    const std::tuple<int, const char*, const char*, int, int, const char*> settings[] = {
        {1, "WPA2PSK", "AES", 0x0022, 0x000C, "psk-5"},
        {0, "WPA+2PSK", "TKIP+AES", 0x0022, 0x000C, "psk-24"},
        {1, "WPAPSK", "WEP", 0x0022, 0x000C, "psk-5"},  // the cipher text is not read
        {0, "SHARED", "WEP", 0x0001, 0x0002, "wep-24"},
        {1, "", "", 0x0001, 0x0001, "sentinel"},
        {0, "wpa2psk", "AES", 0x0001, 0x0001, "sentinel"},
    };
    for (const auto& [is5G, auth, encr, authtype, encrtype, pwd] : settings) {
        const std::string path = is5G ? "/wifi/entry:1" : "/wifi/entry:2";
        db_set(path + "/authtype", auth);
        db_set(path + "/encrtype", encr);
        EncryptSetting_t got{};
        std::strcpy(got.pwd, "sentinel");
        EXPECT_EQ(IEEE19051Port_GetEncryptSetting(is5G, &got), 0);
        using Got = std::tuple<int, int, std::string, std::string>;
        EXPECT_EQ(Got(got.authtype, got.encrtype, got.ssid, got.pwd),
                  Got(authtype, encrtype, is5G ? "net-5" : "net-24", pwd))
            << auth;
    }

    // The saved entry written to: count 1 of 2.4 GHz, count 3 of 5 GHz.
    const std::string saved[] = {"/runtime/apcloning/BAND_2P4G/backup_setting:1",
                                 "/runtime/apcloning/BAND_5G/backup_setting:3"};
    // {is5G, setter, type, leaf, text written}
    // clang-format off
    using TypeSetter = int (*)(int, int, u_int16_t);
    const std::tuple<int, TypeSetter, u_int16_t, const char*, const char*> types[] = {
        {1, IEEE19051Port_SetEncrType, 0x0004, "/encrtype", "TKIP+AES"},
        {0, IEEE19051Port_SetEncrType, 0x0003, "/encrtype", "NONE"},
        {0, IEEE19051Port_SetEncrType, 0x0002, "/encrtype", "WEP"},
        {1, IEEE19051Port_SetAuthType, 0x0002, "/authtype", "OPEN"},
        {0, IEEE19051Port_SetAuthType, 0x0020, "/authtype", "WPA+2PSK"}};
    // clang-format on
    for (const auto& [is5G, set, type, leaf, text] : types) {
        EXPECT_EQ(set(is5G, is5G ? 3 : 1, type), 0);
        EXPECT_EQ(db_get(saved[is5G] + leaf), text) << type;
    }
    const std::string yyy(1100, 'y');
    // {is5G, setter, value, buflen, leaf, text stored}; "before": refused. The
    // request carries at most 510 characters of path, blank and value.
    // clang-format off
    using TextSetter = int (*)(int, int, const u_int8_t*, int);
    const std::tuple<int, TextSetter, const char*, int, const char*, std::string> texts[] = {
        {1, IEEE19051Port_SetSSID, "abcdef", 4, "/ssid", "abcd"},
        {1, IEEE19051Port_SetSSID, "ab\0cd", 5, "/ssid", "ab"},
        {1, IEEE19051Port_SetSSID, yyy.c_str(), 1025, "/ssid", "before"},
        {1, IEEE19051Port_SetSSID, yyy.c_str(), 1024, "/ssid", std::string(510 - 48 - 1, 'y')},
        {0, IEEE19051Port_SetNetworkKey, "key", 3, "/key", "key"}};
    // clang-format on
    for (const auto& [is5G, set, value, buflen, leaf, stored] : texts) {
        db_set(saved[is5G] + leaf, "before");
        const auto* bytes = reinterpret_cast<const u_int8_t*>(value);
        EXPECT_EQ(set(is5G, is5G ? 3 : 1, bytes, buflen), stored == "before" ? -1 : 0);
        EXPECT_EQ(db_get(saved[is5G] + leaf), stored) << buflen;
    }
    IEEE19051Port_SetCount(1, 12);
    EXPECT_EQ(db_get("/runtime/apcloning/BAND_5G/count"), "12");
    EXPECT_EQ(IEEE19051Port_GetCount(1), 12);
    EXPECT_EQ(IEEE19051Port_GetCount(0), 0);
    EXPECT_EQ(IEEE19051Port_SetDone(0, 1), 0);
    EXPECT_EQ(db_get("/runtime/apcloning/BAND_2P4G/done"), "1");

    // The UUID: ten zero bytes, then the MAC of br0.
    std::vector<uint8_t> uuid(16, 0), expected = kestr::test::interface_mac("br0");
    expected.insert(expected.begin(), 10, 0);
    EXPECT_EQ(IEEE19051Port_GetUUID(uuid.data(), 16), 16);
    EXPECT_EQ(uuid, expected);
    char missing[] = "nosuch0";
    EXPECT_EQ(IEEE19051Port_GetMacByInterface(missing, reinterpret_cast<ether_addr*>(&uuid[0])),
              -1);
}

}  // namespace
