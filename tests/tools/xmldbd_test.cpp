#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "port/comlib/libxmldbc.h"
#include "tests/support/netns.h"
#include "tests/support/xmldbd.h"

namespace {

using kestr::test::db_get;
using kestr::test::db_set;
using kestr::test::seed_path;
using kestr::test::XmldbdOptions;
using kestr::test::XmldbdProcess;
using namespace std::chrono_literals;

const char* kSocket = "/var/run/xmldb_sock";

std::string request(uint16_t action, const std::string& arg, uint32_t flags = 0,
                    std::optional<uint16_t> length = std::nullopt) {
    rgdb_ipc_t h{action, length.value_or(static_cast<uint16_t>(arg.size())), flags, 0};
    return std::string(reinterpret_cast<const char*>(&h), sizeof h) + arg;
}

std::string text(const char* s) {
    return std::string(s, std::strlen(s) + 1);
}

std::string status_reply(uint16_t action, uint32_t flags, int32_t retcode) {
    rgdb_ipc_t h{action, 0, flags, retcode};
    return std::string(reinterpret_cast<const char*>(&h), sizeof h);
}

// A client speaking raw bytes to the daemon.
class Raw {
  public:
    explicit Raw(const std::string& path = kSocket) {
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un addr {};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        connected_ = connect(fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0;
    }
    ~Raw() { close(fd_); }
    bool ok() const { return connected_; }
    bool send(const std::string& bytes) {
        return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    void end_writing() { shutdown(fd_, SHUT_WR); }
    // Everything until the daemon closes; nothing if it is still open after
    // `limit`.
    std::optional<std::string> until_closed(std::chrono::milliseconds limit = 5000ms) {
        std::string got;
        const auto end = std::chrono::steady_clock::now() + limit;
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                end - std::chrono::steady_clock::now());
            struct pollfd p {
                fd_, POLLIN, 0
            };
            if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0)
                return std::nullopt;
            char buf[65536];
            const ssize_t n = read(fd_, buf, sizeof buf);
            if (n <= 0)
                return got;
            got.append(buf, static_cast<size_t>(n));
        }
    }

  private:
    int fd_ = -1;
    bool connected_ = false;
};

size_t count_lines(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
        ++n;
    return n;
}

XmldbdOptions capturing() {
    XmldbdOptions o;
    o.capture_stderr = true;
    return o;
}

TEST(Xmldbd, AnswersEachRequestCodeInItsPattern) {
    KESTR_ENTER_NAMESPACES({.bridge = false});
    auto db = XmldbdProcess::with_xml("<db><a>1</a></db>", capturing());
    ASSERT_TRUE(db->ok());
    struct Case {
        std::string bytes;
        std::string reply;
    } cases[] = {
        {request(1, text("/a"), 9), text("1")},
        {request(1, text("/missing")), text("")},
        {request(1, text("not a path")), text("")},
        {request(2, text("/b/c:2 x y"), 5), status_reply(2, 5, 0)},
        {request(1, text("/b/c:2")), text("x y")},
        {request(2, text("/b/c")), status_reply(2, 0, 0)},  // no blank: empty value
        {request(2, text("bad/path v")), status_reply(2, 0, -1)},
        {request(3, text("/b")), status_reply(3, 0, 0)},
        {request(1, text("/b/c:2")), text("")},
        {request(3, text("//")), status_reply(3, 0, -1)},
        {request(10, text("/x.php")), text("")},
        {request(12, text("/a cmd")), text("")},
        {request(15, text("/a")), text("")},
        {request(4, text("/f"), 1), status_reply(4, 1, -1)},
        {request(8, text("x")), status_reply(8, 0, -1)},
        {request(13, text("t")), status_reply(13, 0, -1)},
        {request(0, text("x")), status_reply(0, 0, -1)},
        {request(0xFFFF, text("x")), status_reply(0xFFFF, 0, -1)},
    };
    for (const auto& c : cases) {
        Raw raw;
        ASSERT_TRUE(raw.ok());
        ASSERT_TRUE(raw.send(c.bytes));
        EXPECT_EQ(raw.until_closed(), c.reply) << c.bytes.substr(12);
    }
    EXPECT_EQ(count_lines(db->stderr_text(), "connection closed"), 0u);
}

TEST(Xmldbd, HostileRequestsCloseOnlyTheirConnection) {
    KESTR_ENTER_NAMESPACES({.bridge = false});
    auto db = XmldbdProcess::with_xml("<db><a>1</a></db>", capturing());
    ASSERT_TRUE(db->ok());
    struct Case {
        const char* what;
        std::string bytes;
        bool then_end;  // the client ends its side after sending
        const char* message;
    } cases[] = {
        {"short header", std::string(7, '\1'), true, "short header: 7 of 12 bytes"},
        {"disconnect mid-request", request(1, "/abc", 0, 10), true,
         "disconnected mid-request: 4 of 10 argument bytes"},
        {"more bytes than announced", request(1, text("/a") + "xyz", 0, 3), false,
         "length 3 disagrees with the 6 argument bytes sent"},
        {"oversized argument", request(1, "", 0, 5000), false,
         "oversized argument: 5000 bytes, at most 4096"},
        {"largest length field", request(2, "", 0, 0xFFFF), false,
         "oversized argument: 65535 bytes"},
        {"argument without NUL", request(1, "/ab"), false,
         "argument is not one NUL-terminated text"},
        {"NUL inside the argument", request(2, std::string("/a\0 2\0", 6)), false,
         "argument is not one NUL-terminated text"},
        {"empty argument", request(1, ""), false, "argument without NUL: length 0"},
    };
    for (const auto& c : cases) {
        const size_t before = count_lines(db->stderr_text(), c.message);
        Raw raw;
        ASSERT_TRUE(raw.ok()) << c.what;
        ASSERT_TRUE(raw.send(c.bytes)) << c.what;
        if (c.then_end)
            raw.end_writing();
        EXPECT_EQ(raw.until_closed(), "") << c.what;
        EXPECT_EQ(count_lines(db->stderr_text(), c.message), before + 1) << c.what;
        EXPECT_EQ(db_get("/a"), "1") << "after " << c.what;
    }
    // A client that connects and leaves without a byte is only a probe.
    Raw probe;
    probe.end_writing();
    EXPECT_EQ(probe.until_closed(), "");
    const std::string log = db->stderr_text();
    EXPECT_EQ(count_lines(log, "connection closed"), std::size(cases)) << log;
    // One line each, all of the same shape.
    std::istringstream lines(log);
    std::string line;
    const std::regex shape("xmldbd: (serving .*|client [0-9]+: .*; connection closed)");
    while (std::getline(lines, line))
        EXPECT_TRUE(std::regex_match(line, shape)) << line;
}

TEST(Xmldbd, StalledClientsDoNotHoldUpOthers) {
    KESTR_ENTER_NAMESPACES({.bridge = false});
    XmldbdOptions options = capturing();
    options.extra_args = {"-t", "1"};
    auto db =
        XmldbdProcess::with_xml("<db><big>" + std::string(400000, 'b') + "</big></db>", options);
    ASSERT_TRUE(db->ok());
    Raw silent;     // connects and sends nothing
    Raw dribbler;   // half a header
    Raw no_reader;  // asks for a large value and never reads it
    ASSERT_TRUE(dribbler.send(std::string(5, '\1')));
    ASSERT_TRUE(no_reader.send(request(1, text("/big"))));

    // Many clients at once, each with its request split in two, completed in
    // the reverse order of connecting: every one gets its own answer.
    std::vector<std::unique_ptr<Raw>> many;
    for (int i = 0; i < 64; ++i) {
        EXPECT_EQ(db_set("/n:" + std::to_string(i + 1), "v" + std::to_string(i)), 0);
        many.push_back(std::make_unique<Raw>());
        ASSERT_TRUE(many.back()->send(
            request(1, text(("/n:" + std::to_string(i + 1)).c_str())).substr(0, 14)));
    }
    for (int i = 63; i >= 0; --i) {
        const std::string full = request(1, text(("/n:" + std::to_string(i + 1)).c_str()));
        ASSERT_TRUE(many[i]->send(full.substr(14)));
        EXPECT_EQ(many[i]->until_closed(), text(("v" + std::to_string(i)).c_str()));
    }

    // The stalled ones are closed when their time is up.
    EXPECT_EQ(silent.until_closed(), "");
    EXPECT_EQ(dribbler.until_closed(), "");
    const std::string log = db->stderr_text();
    EXPECT_EQ(count_lines(log, "no complete request in time; connection closed"), 2u) << log;
    for (int i = 0; i < 100 && count_lines(db->stderr_text(), "answer not taken") == 0; ++i)
        usleep(50000);
    EXPECT_EQ(count_lines(db->stderr_text(), "answer not taken in time; connection closed"), 1u);
    EXPECT_EQ(db_get("/n:64"), "v63");
}

TEST(Xmldbd, DumpAndReadFiles) {
    KESTR_ENTER_NAMESPACES({.bridge = false});
    XmldbdProcess db(seed_path("registrar.xml"), capturing());
    ASSERT_TRUE(db.ok());
    ASSERT_EQ(db_set("/runtime/apcloning/BAND_5G/backup_setting:2/ssid", "<&> \"q\""), 0);
    ASSERT_EQ(xmldbc_dump(nullptr, 0, "/var/run/one.xml"), 0);

    // Reading a dump back into an emptied tree restores it exactly.
    ASSERT_EQ(xmldbc_del(nullptr, 0, "/"), 0);
    EXPECT_EQ(db_get("/wifi/entry:2/ssid"), "");
    ASSERT_EQ(xmldbc_read(nullptr, 0, "/var/run/one.xml"), 0);
    ASSERT_EQ(xmldbc_dump(nullptr, 0, "/var/run/two.xml"), 0);
    auto slurp = [](const char* path) {
        std::ifstream in(path);
        std::ostringstream s;
        s << in.rdbuf();
        return s.str();
    };
    EXPECT_EQ(slurp("/var/run/one.xml"), slurp("/var/run/two.xml"));
    EXPECT_EQ(db_get("/wifi/entry:2/ssid"), "kestrel-home-5G");
    EXPECT_EQ(db_get("/runtime/apcloning/BAND_5G/backup_setting:2/ssid"), "<&> \"q\"");
    EXPECT_NE(slurp("/var/run/one.xml").find("&lt;&amp;"), std::string::npos);

    // Files that cannot be used are refused, with a line on stderr, and the
    // daemon goes on; a FIFO without a reader must not block it.
    ASSERT_EQ(mkfifo("/var/run/fifo", 0600), 0);
    std::ofstream("/var/run/broken.xml") << "<db><a>";
    const struct {
        int (*fn)(sock_t, flag_t, const char*);
        const char* file;
    } refused[] = {
        {xmldbc_dump, "/var/run/fifo"},        {xmldbc_dump, "/var/run"},
        {xmldbc_dump, "/no/such/dir/x.xml"},   {xmldbc_read, "/var/run/fifo"},
        {xmldbc_read, "/var/run/missing.xml"}, {xmldbc_read, "/var/run/broken.xml"},
    };
    for (const auto& r : refused)
        EXPECT_EQ(r.fn(nullptr, 0, r.file), -1) << r.file;
    EXPECT_EQ(count_lines(db.stderr_text(), "dump to /"), 3u);
    EXPECT_EQ(count_lines(db.stderr_text(), "read of /"), 3u);
    EXPECT_EQ(db_get("/wifi/entry:1/ssid"), "kestrel-home-24");
}

TEST(Xmldbd, StartAndStop) {
    KESTR_ENTER_NAMESPACES({.bridge = false});
    struct stat st;
    {
        // A socket file left behind by a daemon that died is replaced.
        Raw dummy;  // nothing listens yet
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        struct sockaddr_un addr {};
        addr.sun_family = AF_UNIX;
        std::strcpy(addr.sun_path, kSocket);
        ASSERT_EQ(bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr), 0);
        close(fd);
        XmldbdProcess db;
        ASSERT_TRUE(db.ok());
        EXPECT_EQ(db_set("/x", "1"), 0);

        // A second daemon on the same socket refuses to start.
        XmldbdProcess second("", capturing());
        EXPECT_FALSE(second.ok());
        EXPECT_EQ(second.exit_status(), 1);
        EXPECT_NE(second.stderr_text().find("another daemon serves"), std::string::npos);
        EXPECT_EQ(db_get("/x"), "1");

        EXPECT_EQ(db.stop(), 0);
        EXPECT_NE(stat(kSocket, &st), 0) << "the socket is removed on SIGTERM";
    }
    {
        XmldbdProcess db;
        ASSERT_TRUE(db.ok());
        kill(db.pid(), SIGINT);
        EXPECT_EQ(db.stop(), 0);
        EXPECT_NE(stat(kSocket, &st), 0) << "the socket is removed on SIGINT";
    }
    // Something else at the socket path is never removed.
    std::ofstream(kSocket) << "keep";
    XmldbdProcess blocked("", capturing());
    EXPECT_FALSE(blocked.ok());
    EXPECT_EQ(blocked.exit_status(), 1);
    EXPECT_NE(blocked.stderr_text().find("is not a socket"), std::string::npos);
    EXPECT_EQ(stat(kSocket, &st), 0);
}

TEST(Xmldbd, RefusesBadSeedsAndArguments) {
    KESTR_ENTER_NAMESPACES({.bridge = false});
    std::ofstream("/var/run/bad.xml") << "<db><phyinf><uid>x</uid></db>";
    std::ofstream("/var/run/empty.xml") << "";
    XmldbdOptions long_path = capturing();
    long_path.socket_path = "/var/run/" + std::string(100, 's');
    XmldbdOptions bad_stall = capturing();
    bad_stall.extra_args = {"-t", "0"};
    const struct {
        std::string seed;
        XmldbdOptions options;
        int status;
        const char* message;
    } cases[] = {
        {"/var/run/bad.xml", capturing(), 1, "cannot use seed file /var/run/bad.xml: "},
        {"/var/run/empty.xml", capturing(), 1, "No document element found"},
        {"/var/run/none.xml", capturing(), 1, "No such file or directory"},
        {"", long_path, 1, "socket path must have 1 to 107 characters"},
        {"", bad_stall, 1, "-t takes a number of seconds"},
    };
    for (const auto& c : cases) {
        XmldbdProcess db(c.seed, c.options);
        EXPECT_FALSE(db.ok()) << c.message;
        EXPECT_EQ(db.exit_status(), c.status) << c.message;
        EXPECT_NE(db.stderr_text().find(c.message), std::string::npos) << db.stderr_text();
    }
}

// ---- the command-line client ----

struct CliRun {
    int status;
    std::string out;
    std::string err;
};

CliRun xmldbc(const std::string& args, const std::string& dir = "/var/run") {
    const std::string err_file = "/var/run/xmldbc.err";
    const std::string command =
        "cd " + dir + " && " + kestr::test::tool_path("xmldbc") + " " + args + " 2>" + err_file;
    CliRun r{-1, "", ""};
    FILE* p = popen(command.c_str(), "r");
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        r.out.append(buf, n);
    const int status = pclose(p);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::ifstream in(err_file);
    std::ostringstream s;
    s << in.rdbuf();
    r.err = s.str();
    return r;
}

TEST(Xmldbc, CommandLine) {
    KESTR_ENTER_NAMESPACES({.bridge = false});
    CliRun r = xmldbc("-g /a");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "xmldbc: cannot reach the database daemon\n");
    EXPECT_EQ(xmldbc("-s /a 1").status, 1);

    XmldbdProcess db(seed_path("enrollee.xml"));
    ASSERT_TRUE(db.ok());
    r = xmldbc("-g /device/apcloning/role -g /phyinf:3/uid -g /none");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "1\nBAND5G-1.1\n\n");

    r = xmldbc("-s /wifi/entry:1/ssid 'two words' -g /wifi/entry:1/ssid -s /e ''");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "two words\n");
    EXPECT_EQ(db_get("/e"), "");

    r = xmldbc("-s 'bad path' v -g /wifi/entry:1/ssid");
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.out, "");  // the first failure ends the run
    EXPECT_EQ(r.err, "xmldbc: the daemon refused set bad path (retcode -1)\n");

    r = xmldbc("-d /wifi -g /wifi/entry:1/ssid");
    EXPECT_EQ(r.out, "\n");

    r = xmldbc("-D -");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("<?xml", 0), 0u);
    EXPECT_NE(r.out.find("<uid>BAND24G-1.1</uid>"), std::string::npos);
    EXPECT_EQ(r.out.find("<entry>"), std::string::npos);

    // Relative file names are the caller's, not the daemon's.
    ASSERT_EQ(mkdir("/var/run/work", 0755), 0);
    EXPECT_EQ(xmldbc("-D saved.xml", "/var/run/work").status, 0);
    std::ofstream("/var/run/work/extra.xml")
        << "<db><wifi><entry><ssid>back</ssid></entry></wifi></db>";
    EXPECT_EQ(xmldbc("-r extra.xml -g /wifi/entry/ssid", "/var/run/work").out, "back\n");
    r = xmldbc("-r missing.xml", "/var/run/work");
    EXPECT_EQ(r.status, 3);
    char* work = realpath("/var/run/work", nullptr);  // /var/run may be a link
    EXPECT_EQ(r.err, "xmldbc: the daemon refused read of " + std::string(work) +
                         "/missing.xml (retcode -1)\n");
    std::free(work);

    // Another socket.
    XmldbdOptions other;
    other.socket_path = "/var/run/other.sock";
    auto second = XmldbdProcess::with_xml("<db><who>other</who></db>", other);
    ASSERT_TRUE(second->ok());
    EXPECT_EQ(xmldbc("-S /var/run/other.sock -g /who").out, "other\n");
    EXPECT_EQ(xmldbc("-g /who").out, "\n");

    for (const char* bad : {"", "-g", "-s /a", "-x", "-S", "-g /a extra"}) {
        r = xmldbc(bad);
        EXPECT_EQ(r.status, 2) << bad;
        EXPECT_NE(r.err.find("usage: xmldbc"), std::string::npos) << bad;
    }
    EXPECT_EQ(xmldbc("-h").status, 0);
}

}  // namespace
