#include "fuzz/support.h"
#include "port/common/bytes.h"

#include <linux/capability.h>
#include <sanitizer/common_interface_defs.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kestr::fuzz {
namespace {

[[noreturn]] void cannot(const char* target, const char* what) {
    std::fprintf(stderr, "%s: %s: %s (the fuzz targets need root)\n", target, what,
                 std::strerror(errno));
    std::exit(2);
}

// Takes CAP_NET_RAW out of the effective and permitted sets for good.
void drop_raw_sockets(const char* target) {
    struct __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    struct __user_cap_data_struct data[2];
    std::memset(data, 0, sizeof data);
    if (syscall(SYS_capget, &header, data) != 0)
        cannot(target, "capget");
    const unsigned bit = 1u << (CAP_NET_RAW % 32);
    data[CAP_NET_RAW / 32].effective &= ~bit;
    data[CAP_NET_RAW / 32].permitted &= ~bit;
    data[CAP_NET_RAW / 32].inheritable &= ~bit;
    if (syscall(SYS_capset, &header, data) != 0)
        cannot(target, "capset");
}

}  // namespace

void isolate(const Namespaces& wanted, const char* target) {
    const int flags = (wanted.net ? CLONE_NEWNET : 0) | (wanted.mount ? CLONE_NEWNS : 0) |
                      (wanted.ipc ? CLONE_NEWIPC : 0);
    if (flags != 0 && unshare(flags) != 0)
        cannot(target, "unshare");
    if (!wanted.raw_sockets)
        drop_raw_sockets(target);
    if (!wanted.mount)
        return;
    // Nothing mounted here may show outside, and no database socket of this
    // machine may be reached: "/var/run" becomes an empty file system.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        cannot(target, "private mounts");
    if (mount("tmpfs", "/var/run", "tmpfs", 0, "size=4m,mode=0755") != 0)
        cannot(target, "tmpfs on /var/run");
}

void fail(const char* file, int line, const char* what) {
    char summary[512];
    std::snprintf(summary, sizeof summary, "%s:%d: expectation failed: %s", file, line, what);
    std::fprintf(stderr, "%s\n", summary);
    __sanitizer_report_error_summary(summary);
    std::abort();
}

void same_text(const std::string& got, const std::string& expected, const char* file, int line) {
    if (got == expected)
        return;
    size_t at = 0;
    while (at < got.size() && at < expected.size() && got[at] == expected[at])
        ++at;
    std::fprintf(stderr,
                 "got (%zu bytes):\n%s\nexpected (%zu bytes):\n%s\nfirst difference at %zu\n",
                 got.size(), got.c_str(), expected.size(), expected.c_str(), at);
    fail(file, line, "the two texts are equal");
}

Frame::Frame(const uint8_t* data, size_t size)
    : bytes_(kCmduMaxFrameLen, 0),
      length_(static_cast<int>(std::min<size_t>(size, kCmduMaxFrameLen))) {
    if (length_ > 0)
        std::memcpy(bytes_.data(), data, static_cast<size_t>(length_));
}

std::vector<uint8_t> wsc_tlv(const uint8_t* value, size_t len) {
    std::vector<uint8_t> tlv(kTlvHeaderLen + len);
    tlv[0] = IEEE1905_TLV_TYPE_WPS;
    kestr::store_be16(tlv.data() + 1, static_cast<uint16_t>(len));
    if (len != 0)
        std::memcpy(tlv.data() + kTlvHeaderLen, value, len);
    return tlv;
}

}  // namespace kestr::fuzz
