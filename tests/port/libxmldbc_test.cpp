#include "port/comlib/libxmldbc.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "port/19051_port.h"
#include "tests/support/netns.h"
#include "tests/support/xmldbd.h"

namespace {

using kestr::test::db_get;
using kestr::test::db_set;
using kestr::test::XmldbdProcess;
using namespace std::chrono_literals;

std::string bytes(const void* p, size_t n) {
    return std::string(static_cast<const char*>(p), n);
}

// The request header as the wire carries it on this host.
std::string header(uint16_t action, uint16_t length, uint32_t flags) {
    rgdb_ipc_t h{action, length, flags, 0};
    return bytes(&h, sizeof h);
}

std::string status(int32_t retcode) {
    rgdb_ipc_t h{0, 0, 0, retcode};
    return bytes(&h, sizeof h);
}

// A daemon played by the test: accepts one connection on `path`, records the
// request (header plus announced argument), then sends `pieces` one by one
// with a pause between them, and closes.
class ScriptedDaemon {
  public:
    ScriptedDaemon(const std::string& path, std::vector<std::string> pieces)
        : path_(path), pieces_(std::move(pieces)) {
        unlink(path.c_str());
        listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un addr {};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        ok_ = bind(listen_fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0 &&
              listen(listen_fd_, 4) == 0;
        if (ok_)
            thread_ = std::thread([this] { serve(); });
    }
    ~ScriptedDaemon() {
        if (thread_.joinable())
            thread_.join();
        close(listen_fd_);
        unlink(path_.c_str());
    }
    bool ok() const { return ok_; }
    // What the client sent; valid once the client call has returned.
    std::string request() {
        if (thread_.joinable())
            thread_.join();
        return request_;
    }

  private:
    void serve() {
        struct pollfd p {
            listen_fd_, POLLIN, 0
        };
        if (poll(&p, 1, 5000) <= 0)
            return;
        const int fd = accept(listen_fd_, nullptr, nullptr);
        if (fd < 0)
            return;
        char buf[4096];
        size_t want = sizeof(rgdb_ipc_t);
        while (request_.size() < want) {
            const ssize_t n = read(fd, buf, sizeof buf);
            if (n <= 0)
                break;
            request_.append(buf, static_cast<size_t>(n));
            if (request_.size() >= sizeof(rgdb_ipc_t)) {
                rgdb_ipc_t h;
                std::memcpy(&h, request_.data(), sizeof h);
                want = sizeof h + h.length;
            }
        }
        for (size_t i = 0; i < pieces_.size(); ++i) {
            if (i > 0)
                std::this_thread::sleep_for(20ms);
            if (send(fd, pieces_[i].data(), pieces_[i].size(), MSG_NOSIGNAL) < 0)
                break;
        }
        close(fd);
    }

    std::string path_;
    std::vector<std::string> pieces_;
    int listen_fd_ = -1;
    bool ok_ = false;
    std::string request_;
    std::thread thread_;
};

std::string scratch_socket() {
    return "/tmp/kestr-xmldbc-" + std::to_string(getpid()) + ".sock";
}

// A request as it must appear on the wire: header, text, NUL.
std::string wire(uint16_t action, uint32_t flags, const std::string& arg) {
    return header(action, static_cast<uint16_t>(arg.size() + 1), flags) + arg +
           std::string(1, '\0');
}

// What each entry point sends.
TEST(XmldbClient, RequestBytes) {
    const std::string path = scratch_socket();
    const char* sn = path.c_str();
    char b[8];
    const std::string v600(600, 'v');
    struct Case {
        std::function<long()> call;
        std::string request;
    };
    // clang-format off
    const Case cases[] = {
        {[&] { return xmldbc_get(sn, 7, "/a/b", nullptr); },          wire(1, 7, "/a/b")},
        {[&] { return xmldbc_get_wb(sn, 0, "/a", b, sizeof b); },     wire(1, 0, "/a")},
        {[&] { return xmldbc_set(sn, 0, "/a/ssid", "my net"); },      wire(2, 0, "/a/ssid my net")},
        {[&] { return xmldbc_set(sn, 0, "/a", ""); },                 wire(2, 0, "/a ")},
        {[&] { return xmldbc_set(sn, 0, "/n", v600.c_str()); },       wire(2, 0, "/n " + v600.substr(0, 507))},
        {[&] { return xmldbc_del(sn, 3, "/a"); },                     wire(3, 3, "/a")},
        {[&] { return xmldbc_reload(sn, 0, "/r"); },                  wire(4, 0, "/r")},
        {[&] { return xmldbc_dump(sn, 0, "/d"); },                    wire(5, 0, "/d")},
        {[&] { return xmldbc_read(sn, 0, "/r"); },                    wire(6, 0, "/r")},
        {[&] { return xmldbc_patch(sn, 0, "/p"); },                   wire(7, 0, "/p")},
        {[&] { return xmldbc_ephp(sn, 0, "/e", nullptr); },           wire(10, 0, "/e")},
        {[&] { return xmldbc_ephp_wb(sn, 0, "/e", b, sizeof b); },    wire(10, 0, "/e")},
        {[&] { return xmldbc_setext(sn, 0, "/a", "cmd x"); },         wire(11, 0, "/a cmd x")},
        {[&] { return xmldbc_getext(sn, 0, "/a", "c", nullptr); },    wire(12, 0, "/a c")},
        {[&] { return xmldbc_timer(sn, 0, "t 5"); },                  wire(13, 0, "t 5")},
        {[&] { return xmldbc_killtimer(sn, 0, "tag"); },              wire(14, 0, "tag")},
        {[&] { return xmldbc_write(sn, 0, "/w", nullptr); },          wire(15, 0, "/w")},
    };
    // clang-format on
    for (const auto& c : cases) {
        // A status header with retcode 0 reads as an empty text as well.
        ScriptedDaemon daemon(path, {status(0)});
        ASSERT_TRUE(daemon.ok());
        EXPECT_EQ(c.call(), 0) << c.request.substr(12);
        EXPECT_EQ(daemon.request(), c.request);
    }
}

// What each reply pattern makes of the daemon's answer.
TEST(XmldbClient, ReplyPatterns) {
    const std::string path = scratch_socket();
    enum Pattern { Buffer, Stream, Status };
    struct Case {
        const char* what;
        Pattern pattern;
        std::vector<std::string> pieces;
        long result;
        std::string text;  // the buffer, or what reached the stream
    };
    using S = std::string;
    // clang-format off
    const Case cases[] = {
        {"text in two pieces", Buffer, {"wind ", S("over\0", 5)}, 0, "wind over"},
        {"empty text", Buffer, {S("\0", 1)}, 0, ""},
        {"closed without an answer", Buffer, {}, 0, "untouched"},
        {"no NUL within the buffer: cut in its last byte", Buffer, {S(40, 'z')}, 0, S(15, 'z')},
        {"text stops at the first NUL of a piece ending in NUL", Stream, {"abc", S("def\0junk\0", 9)}, 0, "abcdef"},
        {"a piece with an inner NUL goes whole", Stream, {S("par\0tial", 8)}, 0, S("par\0tial", 8)},
        {"retcode passed through", Status, {status(-7)}, -7, ""},
        {"status in pieces: only the first read counts", Status, {S(6, '\0'), S(6, '\0')}, -1, ""},
        {"closed without a status", Status, {}, -1, ""},
    };
    // clang-format on
    for (const auto& c : cases) {
        ScriptedDaemon daemon(path, c.pieces);
        ASSERT_TRUE(daemon.ok());
        char buf[16] = "untouched";
        char* streamed = nullptr;
        size_t streamed_size = 0;
        FILE* out = open_memstream(&streamed, &streamed_size);
        long result = 0;
        if (c.pattern == Buffer) {
            result = xmldbc_get_wb(path.c_str(), 0, "/x", buf, sizeof buf);
        } else if (c.pattern == Stream) {
            result = xmldbc_get(path.c_str(), 0, "/x", out);
        } else {
            result = xmldbc_del(path.c_str(), 0, "/x");
        }
        std::fclose(out);
        EXPECT_EQ(result, c.result) << c.what;
        const std::string seen =
            c.pattern == Buffer ? std::string(buf) : std::string(streamed, streamed_size);
        EXPECT_EQ(seen, c.pattern == Status ? "" : c.text) << c.what;
        std::free(streamed);
    }
}

TEST(XmldbClient, SocketPathIsCutAt107Characters) {
    std::string path = "/tmp/kestr-" + std::to_string(getpid()) + "-";
    path += std::string(107 - path.size(), 'p');
    ScriptedDaemon daemon(path, {status(5)});
    ASSERT_TRUE(daemon.ok());
    EXPECT_EQ(xmldbc_del((path + "ignored-tail").c_str(), 0, "/a"), 5);
}

TEST(XmldbClient, DaemonAbsentFailsEveryEntryPointAtOnce) {
    KESTR_ENTER_NAMESPACES({.bridge = false});
    char buf[8] = "keep";
    for (sock_t sn : {static_cast<sock_t>(nullptr), "/var/run/no-such-daemon"}) {
        const long results[] = {
            xmldbc_get(sn, 0, "/a", stdout),   xmldbc_get_wb(sn, 0, "/a", buf, sizeof buf),
            xmldbc_set(sn, 0, "/a", "1"),      xmldbc_del(sn, 0, "/a"),
            xmldbc_reload(sn, 0, "/f"),        xmldbc_dump(sn, 0, "/f"),
            xmldbc_read(sn, 0, "/f"),          xmldbc_patch(sn, 0, "/f"),
            xmldbc_ephp(sn, 0, "/f", stdout),  xmldbc_ephp_wb(sn, 0, "/f", buf, sizeof buf),
            xmldbc_setext(sn, 0, "/a", "c"),   xmldbc_getext(sn, 0, "/a", "c", stdout),
            xmldbc_timer(sn, 0, "c"),          xmldbc_killtimer(sn, 0, "t"),
            xmldbc_write(sn, 0, "/a", stdout),
        };
        for (size_t i = 0; i < std::size(results); ++i)
            EXPECT_EQ(results[i], -1) << "entry " << i;
    }
    EXPECT_STREQ(buf, "keep");
    char path[16] = "keep";
    EXPECT_EQ(xmldbc_getpathbyuid("/phyinf", "BAND5G-1.1", path, sizeof path), -1);
    EXPECT_STREQ(path, "keep");
}

// Requests from many threads at once each get their own answer.
TEST(XmldbClient, ConcurrentRequestsStayApart) {
    KESTR_ENTER_NAMESPACES({.bridge = false});
    XmldbdProcess db;
    ASSERT_TRUE(db.ok());
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([t, &wrong] {
            for (int i = 0; i < 50; ++i) {
                const std::string node = "/load/t" + std::to_string(t);
                const std::string value = std::to_string(t * 1000 + i);
                if (db_set(node, value) != 0 || db_get(node) != value)
                    ++wrong;
            }
        });
    }
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(wrong.load(), 0);
}

std::string uid_list(int members, const std::function<std::string(int)>& uid) {
    std::string xml = "<db>";
    for (int i = 1; i <= members; ++i)
        xml += "<phyinf><uid>" + uid(i) + "</uid></phyinf>";
    return xml + "</db>";
}

TEST(XmldbClient, PathByUid) {
    KESTR_ENTER_NAMESPACES({.bridge = false});
    auto numbered = [](int i) { return "u" + std::to_string(i); };
    struct Case {
        const char* what;
        int members;
        std::function<std::string(int)> uid;
        std::string wanted;
        ssize_t result;
        const char* path;
    } cases[] = {
        {"match at member 63", 64, [&](int i) { return i == 63 ? "X" : numbered(i); }, "X", 0,
         "/phyinf:63"},
        {"only match at member 64", 64, [&](int i) { return i == 64 ? "X" : numbered(i); }, "X", -1,
         "keep"},
        {"duplicates give the lower index", 5, [](int i) { return i == 2 || i == 4 ? "X" : "u"; },
         "X", 0, "/phyinf:2"},
        {"a gap does not end the search", 5, [](int i) { return i == 5 ? "X" : ""; }, "X", 0,
         "/phyinf:5"},
        {"comparison is case-sensitive", 3, [](int) { return "band5g-1.1"; }, "BAND5G-1.1", -1,
         "keep"},
        // The value is read into 32 bytes: a longer uid takes part only with
        // its first 31 characters.
        {"a long uid never matches itself", 2,
         [](int i) { return i == 2 ? std::string(40, 'L') : "u"; }, std::string(40, 'L'), -1,
         "keep"},
        {"a long uid matches its first 31 characters", 2,
         [](int i) { return i == 2 ? std::string(40, 'L') : "u"; }, std::string(31, 'L'), 0,
         "/phyinf:2"},
        {"an empty uid matches the first member past the end", 2, numbered, "", 0, "/phyinf:3"},
    };
    for (const auto& c : cases) {
        auto db = XmldbdProcess::with_xml(uid_list(c.members, c.uid));
        ASSERT_TRUE(db->ok()) << c.what;
        char path[32] = "keep";
        EXPECT_EQ(xmldbc_getpathbyuid("/phyinf", c.wanted.c_str(), path, sizeof path), c.result)
            << c.what;
        EXPECT_STREQ(path, c.path) << c.what;
    }
    // The member path is cut to the caller's buffer.
    auto db = XmldbdProcess::with_xml(uid_list(12, numbered));
    char path[8] = "keep";
    EXPECT_EQ(xmldbc_getpathbyuid("/phyinf", "u12", path, sizeof path), 0);
    EXPECT_STREQ(path, "/phyinf");
}

TEST(XmldbClient, TextAndShellHelpers) {
    char text[] = " \t\r\n value \t\r\n";
    EXPECT_STREQ(lxmldbc_eatwhite(text), "value \t\r\n");
    EXPECT_STREQ(lxmldbc_reatwhite(text), " \t\r\n value");
    char blank[] = " \n";
    EXPECT_STREQ(lxmldbc_reatwhite(blank), "");
    EXPECT_EQ(lxmldbc_eatwhite(nullptr), nullptr);
    EXPECT_EQ(lxmldbc_reatwhite(nullptr), nullptr);

    EXPECT_EQ(WEXITSTATUS(lxmldbc_system("exit %d", 3)), 3);
    char buf[8];
    EXPECT_EQ(lxmldbc_run_shell(buf, sizeof buf, "printf '%s\\n'", "abc"), 0);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(lxmldbc_run_shell(buf, sizeof buf, "printf 'a\\n\\n'"), 0);
    EXPECT_STREQ(buf, "a\n");  // one line feed removed, not all
    EXPECT_EQ(lxmldbc_run_shell(buf, sizeof buf, "echo 0123456789"), 0);
    EXPECT_STREQ(buf, "0123456");
    EXPECT_EQ(lxmldbc_run_shell(buf, sizeof buf, "true"), 0);
    EXPECT_STREQ(buf, "");
}

}  // namespace
