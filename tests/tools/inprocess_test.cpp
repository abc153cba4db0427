// The client library against the stand-in daemon's own event loop, in one
// process, on a socket of the test's own under /tmp. It needs no namespace
// and no helper program, so it runs in every build, the emulated big-endian
// one included: there the 12-byte header travels in big-endian host order,
// and client and daemon must still read each other's length, action and
// return code the same way.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "port/comlib/libxmldbc.h"
#include "port/common/unique_fd.h"
#include "tools/xmldbd/server.h"
#include "tools/xmldbd/tree.h"

namespace {

// xmldbd's loop on a private socket, serving `tree` until destroyed.
class InProcessDaemon {
  public:
    explicit InProcessDaemon(const std::string& seed_xml)
        : path_("/tmp/kestr-inproc-" + std::to_string(getpid()) + ".sock") {
        std::string why;
        loaded_ = tree_.load(seed_xml, &why);
        unlink(path_.c_str());
        fd_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        const struct sockaddr_un addr = address();
        listening_ =
            bind(fd_.get(), reinterpret_cast<const struct sockaddr*>(&addr), sizeof addr) == 0 &&
            listen(fd_.get(), 16) == 0;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask_);
        if (loaded_ && listening_)
            thread_ = std::thread([this] { xmldbd::serve(tree_, fd_.get(), {}, stop_, &mask_); });
    }
    ~InProcessDaemon() {
        stop_.store(1);
        // One connection wakes the loop so that it sees the stop.
        kestr::UniqueFd wake(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const struct sockaddr_un addr = address();
        connect(wake.get(), reinterpret_cast<const struct sockaddr*>(&addr), sizeof addr);
        if (thread_.joinable())
            thread_.join();
        unlink(path_.c_str());
    }
    bool ok() const { return loaded_ && listening_; }
    sock_t socket_path() const { return path_.c_str(); }

  private:
    struct sockaddr_un address() const {
        struct sockaddr_un addr {};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path_.c_str(), sizeof addr.sun_path - 1);
        return addr;
    }

    std::string path_;
    xmldbd::ConfigTree tree_;
    kestr::UniqueFd fd_;
    bool loaded_ = false;
    bool listening_ = false;
    sigset_t mask_;
    std::atomic<int> stop_{0};
    std::thread thread_;
};

std::string get(sock_t sn, const std::string& node, size_t size = 400000) {
    std::string buf(size, '\0');
    if (xmldbc_get_wb(sn, 0, node.c_str(), buf.data(), size) != 0)
        return "<unreachable>";
    return buf.c_str();
}

TEST(ClientAndDaemon, EveryRequestMeansTheSameToBothEnds) {
    // A value far larger than a socket buffer reaches the client in many pieces.
    const std::string long_value(300000, 'v');
    InProcessDaemon db(
        "<db><device><apcloning><role>0</role></apcloning></device>"
        "<phyinf><uid>ETH-1</uid></phyinf><phyinf><uid>BAND24G-1.1</uid></phyinf>"
        "<phyinf><uid>BAND5G-1.1</uid></phyinf><long>" +
        long_value + "</long></db>");
    ASSERT_TRUE(db.ok());
    const sock_t sn = db.socket_path();

    EXPECT_EQ(get(sn, "/device/apcloning/role"), "0");
    // Replies in many pieces, and cut to the caller's buffer.
    EXPECT_EQ(get(sn, "/long"), long_value);
    EXPECT_EQ(get(sn, "/long", 100), std::string(99, 'v'));

    // A set's argument is cut to 510 characters: "/big", a blank and 505 of
    // the value, length 511, a length with both bytes in use.
    EXPECT_EQ(xmldbc_set(sn, 0, "/big", std::string(600, 'x').c_str()), 0);
    EXPECT_EQ(get(sn, "/big"), std::string(505, 'x'));
    EXPECT_EQ(xmldbc_set(sn, 0, "/runtime/apcloning/BAND_5G/ssid", "two words"), 0);
    EXPECT_EQ(get(sn, "/runtime/apcloning/BAND_5G/ssid"), "two words");
    EXPECT_EQ(xmldbc_set(sn, 0, "/runtime/apcloning/BAND_5G/ssid", ""), 0);
    EXPECT_EQ(get(sn, "/runtime/apcloning/BAND_5G/ssid"), "");

    // Status replies: 0 for a delete, the daemon's -1 for a request it does
    // not serve, and the text pattern to a stream.
    EXPECT_EQ(xmldbc_del(sn, 0, "/big"), 0);
    EXPECT_EQ(get(sn, "/big"), "");
    EXPECT_EQ(xmldbc_reload(sn, 0, "/nonexistent.xml"), -1);
    char* text = nullptr;
    size_t text_size = 0;
    FILE* out = open_memstream(&text, &text_size);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(xmldbc_get(sn, 0, "/phyinf:3/uid", out), 0);
    std::fclose(out);
    EXPECT_EQ(std::string(text, text_size), "BAND5G-1.1");
    std::free(text);
}

}  // namespace
