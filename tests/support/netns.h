// Private namespaces for tests that touch raw sockets, the configuration
// database socket or the shared message-identifier counter.
//
// enter_namespaces() moves the calling thread, and every thread and process it
// starts afterwards, into fresh network and mount namespaces (and an IPC
// namespace on request). Inside, "/var/run" is a private tmpfs, IPv6 is off so
// nothing but the test's own traffic crosses the link, and a bridge "br0"
// has one port "veth0" whose peer end "veth1" is where a test injects frames
// and captures what the bridge sends. Everything vanishes with the process.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kestr::test {

struct NamespaceOptions {
    bool ipc = false;    // a private System V IPC namespace as well
    bool bridge = true;  // create br0 with veth0, and its peer veth1
    bool mount = true;   // a private mount namespace with a tmpfs on /var/run
};

// "" on success; otherwise why the namespaces could not be made. When the
// process is not root, or KESTR_TEST_NO_NAMESPACES is set to anything but
// "" or "0" (test programs run under an emulator), the reason starts with
// "skip:".
std::string enter_namespaces(const NamespaceOptions& options = {});

// The hardware address of an interface, or all zero.
std::vector<uint8_t> interface_mac(const std::string& ifname);

// A raw port on the far side of the bridge (veth1 by default) that sends
// frames into br0 and receives what br0 sends, for one EtherType.
class PeerPort {
  public:
    explicit PeerPort(const std::string& ifname = "veth1", uint16_t ether_type = 0x893A);
    ~PeerPort();
    PeerPort(const PeerPort&) = delete;
    PeerPort& operator=(const PeerPort&) = delete;

    bool ok() const { return fd_ >= 0; }
    std::vector<uint8_t> mac() const { return mac_; }
    bool send(const std::vector<uint8_t>& frame);
    // The next frame, or nothing within `timeout`.
    std::optional<std::vector<uint8_t>> receive(std::chrono::milliseconds timeout);

  private:
    int fd_ = -1;
    int ifindex_ = 0;
    std::vector<uint8_t> mac_;
};

}  // namespace kestr::test

// Enters fresh namespaces or ends the test: skipped when not root, failed
// when root and the namespaces cannot be made.
#define KESTR_ENTER_NAMESPACES(...)                                            \
    do {                                                                       \
        const std::string why_ = ::kestr::test::enter_namespaces(__VA_ARGS__); \
        if (why_.rfind("skip:", 0) == 0)                                       \
            GTEST_SKIP() << why_;                                              \
        ASSERT_EQ(why_, "");                                                   \
    } while (0)
