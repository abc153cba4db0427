#include "tests/support/netns.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace kestr::test {
namespace {

std::string errno_text(const char* what) {
    return std::string(what) + ": " + strerror(errno);
}

void write_proc(const char* path, const char* value) {
    std::ofstream f(path);
    if (f)
        f << value;
}

// Runs `command` through the shell; true when it exits with 0.
bool run_shell(const std::string& command) {
    const int status = std::system(command.c_str());
    return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

std::string enter_namespaces(const NamespaceOptions& options) {
    // Under a user-mode emulator (the big-endian run) a test cannot start the
    // helper programs it needs (xmldbd, kestrd: binaries of the emulated
    // processor), and some system calls the namespace tests lean on, such as
    // robust futex lists, are emulated only in part; these tests step aside.
    const char* no_ns = std::getenv("KESTR_TEST_NO_NAMESPACES");
    if (no_ns != nullptr && *no_ns != '\0' && std::strcmp(no_ns, "0") != 0)
        return "skip: KESTR_TEST_NO_NAMESPACES is set (emulated run without namespaces)";
    if (geteuid() != 0)
        return "skip: needs root to create network and mount namespaces";

    int flags = CLONE_NEWNET;
    if (options.mount)
        flags |= CLONE_NEWNS;
    if (options.ipc)
        flags |= CLONE_NEWIPC;
    if (unshare(flags) != 0)
        return errno_text("unshare");

    if (options.mount) {
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            return errno_text("mount --make-rprivate /");
        if (mount("tmpfs", "/var/run", "tmpfs", 0, "size=16m,mode=0755") != 0)
            return errno_text("mount tmpfs /var/run");
    }

    // No router solicitations or MLD reports: the link carries only what the
    // test sends.
    write_proc("/proc/sys/net/ipv6/conf/all/disable_ipv6", "1");
    write_proc("/proc/sys/net/ipv6/conf/default/disable_ipv6", "1");

    const std::string steps =
        std::string("ip link set lo up") +
        (options.bridge ? " && ip link add br0 type bridge"
                          " && ip link add veth0 type veth peer name veth1"
                          " && ip link set veth0 master br0 && ip link set veth0 up"
                          " && ip link set veth1 up && ip link set br0 up"
                        : "");
    return run_shell(steps) ? "" : "failed: " + steps;
}

std::vector<uint8_t> interface_mac(const std::string& ifname) {
    std::vector<uint8_t> mac(6, 0);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return mac;
    struct ifreq ifr {};
    std::strncpy(ifr.ifr_name, ifname.c_str(), IFNAMSIZ - 1);
    if (ioctl(fd, SIOCGIFHWADDR, &ifr) == 0)
        std::memcpy(mac.data(), ifr.ifr_hwaddr.sa_data, 6);
    close(fd);
    return mac;
}

PeerPort::PeerPort(const std::string& ifname, uint16_t ether_type) {
    mac_ = interface_mac(ifname);
    ifindex_ = static_cast<int>(if_nametoindex(ifname.c_str()));
    if (ifindex_ == 0)
        return;
    fd_ = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ether_type));
    if (fd_ < 0)
        return;
    struct sockaddr_ll addr {};
    addr.sll_family = AF_PACKET;
    addr.sll_protocol = htons(ether_type);
    addr.sll_ifindex = ifindex_;
    if (bind(fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
        close(fd_);
        fd_ = -1;
    }
}

PeerPort::~PeerPort() {
    if (fd_ >= 0)
        close(fd_);
}

bool PeerPort::send(const std::vector<uint8_t>& frame) {
    struct sockaddr_ll to {};
    to.sll_family = AF_PACKET;
    to.sll_ifindex = ifindex_;
    to.sll_halen = ETH_ALEN;
    return sendto(fd_, frame.data(), frame.size(), 0, reinterpret_cast<struct sockaddr*>(&to),
                  sizeof to) == static_cast<ssize_t>(frame.size());
}

std::optional<std::vector<uint8_t>> PeerPort::receive(std::chrono::milliseconds timeout) {
    struct pollfd p {
        fd_, POLLIN, 0
    };
    if (poll(&p, 1, static_cast<int>(timeout.count())) <= 0)
        return std::nullopt;
    std::vector<uint8_t> frame(65536);
    const ssize_t n = recv(fd_, frame.data(), frame.size(), 0);
    if (n < 0)
        return std::nullopt;
    frame.resize(static_cast<size_t>(n));
    return frame;
}

}  // namespace kestr::test
