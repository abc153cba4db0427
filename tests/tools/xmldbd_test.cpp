// The stand-in database daemon xmldbd and its command-line client xmldbc, run
// as the programs a developer starts, in private namespaces.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstring>
#include <fstream>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "port/comlib/libxmldbc.h"
#include "port/common/unique_fd.h"
#include "tests/support/netns.h"
#include "tests/support/xmldbd.h"

namespace {

using kestr::UniqueFd;
using kestr::test::db_get;

std::string header(uint16_t action, uint16_t length, int32_t retcode = 0) {
    const rgdb_ipc_t h{action, length, 0, retcode};
    return std::string(reinterpret_cast<const char*>(&h), sizeof h);
}
// A request whose header announces `length` (default: the bytes that follow).
std::string request(uint16_t action, const std::string& arg, int length = -1) {
    return header(action, static_cast<uint16_t>(length < 0 ? arg.size() : length)) + arg;
}

std::string slurp(const char* path) {
    return (std::ostringstream() << std::ifstream(path).rdbuf()).str();
}

// A client speaking raw bytes to the daemon's default socket.
UniqueFd raw_client(const std::string& bytes) {
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un addr{AF_UNIX, "/var/run/xmldb_sock"};
    connect(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
    send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    return fd;
}
// Everything until the daemon closes; nothing if it is still open after 10 s.
std::optional<std::string> until_closed(const UniqueFd& fd) {
    std::string got;
    char buf[65536];
    for (struct pollfd p{fd.get(), POLLIN, 0}; poll(&p, 1, 10000) > 0;) {
        const ssize_t n = read(fd.get(), buf, sizeof buf);
        if (n <= 0)
            return got;
        got.append(buf, static_cast<size_t>(n));
    }
    return std::nullopt;
}

TEST(Xmldbd, HostileRequestsAndARoundTrip) {
    KESTR_ENTER_NAMESPACES({.bridge = false});
    const std::string big(400000, 'b');
    auto db = kestr::test::XmldbdProcess::with_xml(
        "<db><a>1</a><l><uid>x</uid></l><l><uid>y</uid></l><esc>&lt;&amp;&gt; \"q\"</esc><big>" +
            big + "</big></db>",
        {"/var/run/xmldb_sock", true, {"-t", "5"}});
    ASSERT_TRUE(db->ok());
    auto text = [](const std::string& s) { return s + '\0'; };
    // Stalled clients, there all along: half a header, and an answer never read.
    const UniqueFd dribbler = raw_client(std::string(5, '\1'));
    const UniqueFd no_reader = raw_client(request(1, text("/big")));

    std::string deep, too_many;
    for (int i = 0; i < 64; ++i)
        deep += "/d", too_many += "/n:4096";
    // {request, reply}; an empty reply: closed without one.
    // clang-format off
    const std::pair<std::string, std::string> rows[] = {
        {request(1, text("/a")), text("1")},
        {request(0, text("/a")), header(0, 0, -1)},  // unknown actions: a status
        {request(8, text("/a")), header(8, 0, -1)},
        {request(0xFFFF, text("/a")), header(0xFFFF, 0, -1)},
        {request(4, text("/f")), header(4, 0, -1)},  // not served: in the pattern waited for
        {request(10, text("/x")), text("")},
        {request(1, text("/" + std::string(4094, 'p'))), text("")},  // the longest argument
        {request(2, text("a/b v")), header(2, 0, -1)},
        {request(2, text("/i:4096 v")), header(2, 0, 0)},
        {request(2, text("/i:4097 v")), header(2, 0, -1)},
        {request(2, text(deep + " v")), header(2, 0, 0)},
        {request(2, text(deep + "/d v")), header(2, 0, -1)},
        {request(2, text(too_many + " v")), header(2, 0, -1)},  // more nodes than it holds
        // Values the fuzzers once saw changed by a dump and a read.
        {request(2, text("/cr a\rb\r\n")), header(2, 0, 0)},
        {request(2, text("/m/c child")), header(2, 0, 0)},
        {request(2, text("/m   ")), header(2, 0, 0)},  // blanks beside a child
        // Closed without an answer: a length below, then above, the bytes
        // sent; a short header; no NUL; nothing; a NUL inside; oversized.
        {request(1, text("/a") + "xyz", 3), ""}, {request(1, "/abc", 10), ""},
        {std::string(7, '\1'), ""}, {request(1, "/ab"), ""}, {request(1, ""), ""},
        {request(2, std::string("/a\0 2\0", 6)), ""},
        {request(1, "", 4097), ""}, {request(2, "", 0xFFFF), ""}};
    // clang-format on
    // Every client sends half its request at once; they finish in reverse
    // order, so each waits while later ones are served.
    std::vector<UniqueFd> clients;
    size_t bad = 0;
    for (const auto& [bytes, reply] : rows) {
        clients.push_back(raw_client(bytes.substr(0, bytes.size() / 2)));
        bad += reply.empty();
    }
    for (size_t i = std::size(rows); i-- > 0;) {
        const std::string rest = rows[i].first.substr(rows[i].first.size() / 2);
        send(clients[i].get(), rest.data(), rest.size(), MSG_NOSIGNAL);
        shutdown(clients[i].get(), SHUT_WR);
        EXPECT_EQ(until_closed(clients[i]), rows[i].second) << "row " << i;
    }
    // One line on stderr for each broken request and, once their time is up,
    // for each stalled client.
    const std::regex closed("connection closed");
    auto lines = [&] {
        const std::string log = db->stderr_text();
        return size_t(std::distance(std::sregex_iterator(log.begin(), log.end(), closed), {}));
    };
    for (int i = 0; i < 200 && lines() < bad + 2; ++i)
        usleep(50000);
    EXPECT_EQ(lines(), bad + 2) << db->stderr_text();

    // A dump read back into an emptied tree gives the same tree.
    ASSERT_EQ(xmldbc_dump(nullptr, 0, "/var/run/one.xml"), 0);
    ASSERT_EQ(xmldbc_del(nullptr, 0, "/"), 0);
    ASSERT_EQ(xmldbc_read(nullptr, 0, "/var/run/one.xml"), 0);
    ASSERT_EQ(xmldbc_dump(nullptr, 0, "/var/run/two.xml"), 0);
    EXPECT_EQ(slurp("/var/run/one.xml"), slurp("/var/run/two.xml"));
    EXPECT_LT(slurp("/var/run/one.xml").size(), 2u << 20) << "a refused set made nodes";
    const std::pair<std::string, std::string> kept[] = {
        {"/a", "1"},         {"/l:2/uid", "y"}, {"/esc", "<&> \"q\""},
        {"/cr", "a\rb\r\n"}, {"/m", "  "},      {"/m/c", "child"},
        {"/i:4096", "v"},    {deep, "v"},       {"/big", big},
    };
    for (const auto& [path, value] : kept)
        EXPECT_EQ(db_get(path), value) << path;
}

// xmldbc run in /var/run/work: its exit status and what its standard output
// starts with (nothing at all where "" is expected).
TEST(Xmldbc, CommandLine) {
    KESTR_ENTER_NAMESPACES({.bridge = false});
    auto db = kestr::test::XmldbdProcess::with_xml("<db><a>1</a><l/><l><uid>y</uid></l></db>");
    ASSERT_TRUE(db->ok());
    ASSERT_EQ(mkdir("/var/run/work", 0755), 0);
    // clang-format off
    const std::tuple<const char*, int, const char*> rows[] = {
        {"-g /a -g /l:2/uid -g /none", 0, "1\ny\n\n"},
        {"-s /s 'two words' -g /s -s /s '' -g /s", 0, "two words\n\n"},
        {"-d /l -g /l:1/uid", 0, "y\n"},                      // member 1 goes, the rest move up
        {"-D saved.xml -d /a -r /var/run/work/saved.xml -g /a", 0, "1\n"},  // the caller's names
        {"-D -", 0, "<?xml"}, {"-h", 0, "usage: xmldbc"},
        {"-s 'bad path' v -g /a", 3, ""},                     // the first failure ends the run
        {"-r missing.xml", 3, ""},
        {"-S /var/run/none.sock -g /a", 1, ""}, {"-S /var/run/none.sock -s /a 1", 1, ""},
        {"", 2, ""}, {"-g", 2, ""}, {"-s /a", 2, ""}, {"-x", 2, ""}, {"-g /a extra", 2, ""}};
    // clang-format on
    for (const auto& [args, status, out] : rows) {
        const int got_status =
            kestr::test::run_shell("cd /var/run/work && " + kestr::test::tool_path("xmldbc") + " " +
                                   args + " >out 2>/dev/null");
        const std::string got = slurp("/var/run/work/out");
        EXPECT_EQ(got_status, status) << args;
        EXPECT_EQ(*out ? got.substr(0, std::strlen(out)) : got, out) << args;
    }
}

}  // namespace
