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

// Every entry point: what goes on the wire for each, and what each makes of
// the scripted answer.
TEST(XmldbClient, WireVectorsAndReplyPatterns) {
    const std::string path = scratch_socket();
    const char* sn = path.c_str();
    const std::string long_value(600, 'v');
    const std::string cut = "/n " + std::string(507, 'v');  // 510 characters
    struct Case {
        const char* what;
        std::vector<std::string> reply;
        std::function<long(char* buf, size_t size, FILE* out)> call;
        std::string request;
        long result;
        std::string text;  // buffer contents or stream output
    };
    const Case cases[] = {
        {"get in two pieces",
         {"wind ", std::string("over\0", 5)},
         [&](char* b, size_t s, FILE*) { return xmldbc_get_wb(sn, 7, "/a/b", b, s); },
         header(1, 5, 7) + std::string("/a/b\0", 5),
         0,
         "wind over"},
        {"get answered with an empty text",
         {std::string("\0", 1)},
         [&](char* b, size_t s, FILE*) { return xmldbc_get_wb(sn, 0, "/x", b, s); },
         header(1, 3, 0) + std::string("/x\0", 3),
         0,
         ""},
        {"get closed without an answer",
         {},
         [&](char* b, size_t s, FILE*) { return xmldbc_get_wb(sn, 0, "/x", b, s); },
         header(1, 3, 0) + std::string("/x\0", 3),
         0,
         "untouched"},
        {"get filling the buffer without NUL is cut inside it",
         {std::string(40, 'z')},
         [&](char* b, size_t, FILE*) { return xmldbc_get_wb(sn, 0, "/x", b, 16); },
         header(1, 3, 0) + std::string("/x\0", 3),
         0,
         std::string(15, 'z')},
        {"ephp into a buffer",
         {std::string("page\0", 5)},
         [&](char* b, size_t s, FILE*) { return xmldbc_ephp_wb(sn, 0, "/f.php", b, s); },
         header(10, 7, 0) + std::string("/f.php\0", 7),
         0,
         "page"},
        {"set",
         {status(0)},
         [&](char*, size_t, FILE*) { return xmldbc_set(sn, 0, "/a/ssid", "my net"); },
         header(2, 15, 0) + std::string("/a/ssid my net\0", 15),
         0,
         "untouched"},
        {"set with an empty value keeps the blank",
         {status(0)},
         [&](char*, size_t, FILE*) { return xmldbc_set(sn, 0, "/a", ""); },
         header(2, 4, 0) + std::string("/a \0", 4),
         0,
         "untouched"},
        {"set longer than 510 characters is cut",
         {status(0)},
         [&](char*, size_t, FILE*) { return xmldbc_set(sn, 0, "/n", long_value.c_str()); },
         header(2, 511, 0) + cut + std::string(1, '\0'),
         0,
         "untouched"},
        {"status passes the daemon's retcode",
         {status(-7)},
         [&](char*, size_t, FILE*) { return xmldbc_del(sn, 3, "/a"); },
         header(3, 3, 3) + std::string("/a\0", 3),
         -7,
         "untouched"},
        {"status reply shorter than a header",
         {std::string(6, '\0')},
         [&](char*, size_t, FILE*) { return xmldbc_dump(sn, 0, "/tmp/d"); },
         header(5, 7, 0) + std::string("/tmp/d\0", 7),
         -1,
         "untouched"},
        {"reload",
         {status(0)},
         [&](char*, size_t, FILE*) { return xmldbc_reload(sn, 0, "/r"); },
         header(4, 3, 0) + std::string("/r\0", 3),
         0,
         "untouched"},
        {"read",
         {status(0)},
         [&](char*, size_t, FILE*) { return xmldbc_read(sn, 0, "/r"); },
         header(6, 3, 0) + std::string("/r\0", 3),
         0,
         "untouched"},
        {"patch",
         {status(0)},
         [&](char*, size_t, FILE*) { return xmldbc_patch(sn, 0, "/p"); },
         header(7, 3, 0) + std::string("/p\0", 3),
         0,
         "untouched"},
        {"setext",
         {status(0)},
         [&](char*, size_t, FILE*) { return xmldbc_setext(sn, 0, "/a", "cmd x"); },
         header(11, 9, 0) + std::string("/a cmd x\0", 9),
         0,
         "untouched"},
        {"timer",
         {status(0)},
         [&](char*, size_t, FILE*) { return xmldbc_timer(sn, 0, "t 5"); },
         header(13, 4, 0) + std::string("t 5\0", 4),
         0,
         "untouched"},
        {"killtimer",
         {status(0)},
         [&](char*, size_t, FILE*) { return xmldbc_killtimer(sn, 0, "tag"); },
         header(14, 4, 0) + std::string("tag\0", 4),
         0,
         "untouched"},
        {"get to a stream stops at the NUL",
         {"abc", std::string("def\0junk\0", 9)},
         [&](char*, size_t, FILE* out) { return xmldbc_get(sn, 0, "/g", out); },
         header(1, 3, 0) + std::string("/g\0", 3),
         0,
         "abcdef"},
        {"ephp to a stream",
         {std::string("<p/>\0", 5)},
         [&](char*, size_t, FILE* out) { return xmldbc_ephp(sn, 0, "/e", out); },
         header(10, 3, 0) + std::string("/e\0", 3),
         0,
         "<p/>"},
        {"getext to a stream",
         {std::string("r\0", 2)},
         [&](char*, size_t, FILE* out) { return xmldbc_getext(sn, 0, "/a", "c", out); },
         header(12, 5, 0) + std::string("/a c\0", 5),
         0,
         "r"},
        // Only a piece that ends in NUL is cut at its first NUL.
        {"write to a stream, inner NUL kept, reply ended by close",
         {std::string("par\0tial", 8)},
         [&](char*, size_t, FILE* out) { return xmldbc_write(sn, 0, "/w", out); },
         header(15, 3, 0) + std::string("/w\0", 3),
         0,
         std::string("par\0tial", 8)},
    };
    for (const auto& c : cases) {
        ScriptedDaemon daemon(path, c.reply);
        ASSERT_TRUE(daemon.ok());
        char buf[64] = "untouched";
        char* stream_text = nullptr;
        size_t stream_size = 0;
        FILE* out = open_memstream(&stream_text, &stream_size);
        const long result = c.call(buf, sizeof buf, out);
        std::fclose(out);
        EXPECT_EQ(daemon.request(), c.request) << c.what;
        EXPECT_EQ(result, c.result) << c.what;
        EXPECT_EQ(stream_size > 0 ? std::string(stream_text, stream_size) : std::string(buf),
                  c.text)
            << c.what;
        std::free(stream_text);
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

TEST(XmldbClient, AgainstTheStandInDaemon) {
    KESTR_ENTER_NAMESPACES({.bridge = false});
    // A value far larger than a socket buffer reaches the client in many pieces.
    const std::string big(300000, 'k');
    auto db = XmldbdProcess::with_xml("<db><big>" + big + "</big><a><b>1</b></a></db>");
    ASSERT_TRUE(db->ok());

    std::vector<char> buf(big.size() + 100, 'x');
    std::fill(buf.begin(), buf.end(), '\0');
    EXPECT_EQ(xmldbc_get_wb(nullptr, 0, "/big", buf.data(), buf.size()), 0);
    EXPECT_EQ(std::string(buf.data()), big);
    EXPECT_EQ(db_get("/big"), big);

    char small[8] = {};
    EXPECT_EQ(xmldbc_get_wb(nullptr, 0, "/big", small, sizeof small), 0);
    EXPECT_STREQ(small, "kkkkkkk");

    EXPECT_EQ(db_get("/a/b"), "1");
    EXPECT_EQ(db_get("/no/such/node"), "");
    EXPECT_EQ(db_set("/a/c", ""), 0);
    EXPECT_EQ(db_get("/a/c"), "");
    EXPECT_EQ(db_set("/a/c", "two words"), 0);
    EXPECT_EQ(db_get("/a/c"), "two words");
    // The 510-character cut applies to what the daemon stores.
    EXPECT_EQ(db_set("/a/long", std::string(600, 'q')), 0);
    EXPECT_EQ(db_get("/a/long"), std::string(510 - std::strlen("/a/long "), 'q'));
    EXPECT_EQ(xmldbc_del(nullptr, 0, "/a"), 0);
    EXPECT_EQ(db_get("/a/b"), "");
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
