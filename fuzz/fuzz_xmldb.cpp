// Both ends of the configuration database's protocol. The low two bits of
// byte 0 say which reader the rest of the input goes to: 0, the stand-in
// daemon's request parser and its answer (but to a dump or read, which name
// files); 1, its XML reader, merging a file into the registrar's seed tree;
// 2 and 3, the client's reply readers, against a server on
// "/var/run/xmldb_sock" that answers each connection with the next reply of
// the input (pieces of a 16-bit length and that many bytes, each sent once
// the client has taken the one before; a length of 0 ends a reply). With 2
// the client reads a value into a buffer of 1 + (byte 0 >> 2) bytes; with 3
// the device port reads a band's settings, the AL MAC and a count, and
// saves a count. A request is complete only when whole; whatever a request
// or merge leaves in the tree is written out and read back unchanged; the
// client's value is the reply's text, wherever its reads were cut.
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <mutex>
#include <numeric>
#include <thread>

#include "fuzz/fuzz.h"
#include "port/19051_port.h"
#include "port/comlib/libxmldbc.h"
#include "tools/xmldbd/request.h"

namespace {

std::string g_seed;  // tools/seeds/registrar.xml
std::mutex g_lock;
std::vector<std::vector<std::string>> g_replies;  // the pieces of each connection's reply
size_t g_next = 0;

void serve(int listener) {
    for (int fd; (fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; close(fd)) {
        rgdb_ipc_t h{};
        std::vector<char> arg(recv(fd, &h, sizeof h, MSG_WAITALL) > 0 ? h.length : 0);
        recv(fd, arg.data(), arg.size(), MSG_WAITALL);  // the request whole, then the reply
        std::unique_lock<std::mutex> hold(g_lock);
        const auto reply =
            g_next < g_replies.size() ? g_replies[g_next++] : std::vector<std::string>();
        hold.unlock();
        for (const std::string& piece : reply) {
            send(fd, piece.data(), piece.size(), MSG_NOSIGNAL);
            for (int q = 1, i = 0; ioctl(fd, SIOCOUTQ, &q) == 0 && q > 0 && ++i < 1 << 20;)
                sched_yield();
        }
    }
}

void ready() {  // the seed tree and the server
    std::ifstream in(KESTR_SOURCE_DIR "/tools/seeds/registrar.xml");
    g_seed.assign(std::istreambuf_iterator<char>(in), {});
    sockaddr_un addr{AF_UNIX, {}};
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", kXmldbDefaultSocket);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    KESTR_FUZZ_CHECK(bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
                     listen(listener, 16) == 0);
    std::thread(serve, listener).detach();
}

kestr::fuzz::Seeds seeds() {
    auto request = [](uint16_t action, const std::string& arg) {  // as the client sends it
        const rgdb_ipc_t h{action, uint16_t(arg.size() + 1), 0, 0};
        return '\0' + std::string(reinterpret_cast<const char*>(&h), sizeof h) + arg + '\0';
    };
    auto bytes = [](const std::string& s) { return kestr::fuzz::Bytes(s.begin(), s.end()); };
    return {{"get", bytes(request(XMLDB_GET, "/phyinf:2/uid"))},
            {"registrar.xml", bytes('\1' + g_seed)},
            {"value-in-two-pieces", bytes(std::string("\x3e\0\4kest\0\7rel-24\0", 16))},
            // Once lost through a dump and a read: a carriage return in a
            // value, and blanks as the value of a node with children.
            {"set-carriage-return", bytes(request(XMLDB_SET, "/w/entry:1/ssid a\rb"))},
            {"carriage-return-and-blanks",
             bytes("\1<xmldb><a>x&#13;y</a><device>  </device></xmldb>")}};
}

void client(uint8_t ask, const uint8_t* data, size_t size) {
    std::unique_lock<std::mutex> hold(g_lock);
    g_replies.assign(1, {});
    g_next = 0;
    kestr::ByteReader in(data, size), piece;
    for (uint16_t n = 0; in.u16(&n) && in.sub(n, &piece);) {
        if (n == 0)
            g_replies.emplace_back();
        else
            g_replies.back().emplace_back(reinterpret_cast<const char*>(piece.data()), n);
    }
    const std::string all = std::accumulate(begin(g_replies[0]), end(g_replies[0]), std::string());
    hold.unlock();
    std::vector<char> buf(1 + ask / 4, '\0');  // cleared and just its size, as the port has it
    EncryptSetting_t s{};
    ether_addr mac;
    if (ask % 4 == 2) {
        xmldbc_get_wb(nullptr, 0, "/phyinf:2/uid", buf.data(), buf.size());
        // Up to the reply's first NUL, and at most the buffer's size - 1.
        KESTR_FUZZ_CHECK(buf.data() == all.substr(0, std::min(all.find('\0'), buf.size() - 1)));
    } else {
        KESTR_FUZZ_CHECK(IEEE19051Port_GetEncryptSetting(0, &s) == 0 &&
                         IEEE19051Port_GetAlMac(&mac) == 0 && IEEE19051Port_GetCount(1) >= 0 &&
                         !s.ssid[sizeof s.ssid - 1] && !s.pwd[sizeof s.pwd - 1]);
        IEEE19051Port_SetCount(0, 1);
    }
}

}  // namespace

KESTR_FUZZ_START(seeds, ready)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    xmldbd::ConfigTree tree, again;
    std::string error, log;
    KESTR_FUZZ_CHECK(tree.load(g_seed, &error));
    const uint8_t reader = size > 0 ? data[0] % 4 : 0, *rest = data + 1;
    const size_t n = size - std::min<size_t>(size, 1);
    rgdb_ipc_t h{};
    if (reader == 0 && xmldbd::check_request(rest, n).kind == xmldbd::Framing::Complete) {
        std::memcpy(&h, rest, sizeof h);
        for (size_t prefix = 0; prefix < n; prefix += 1 + prefix / 8)
            KESTR_FUZZ_CHECK(xmldbd::check_request(rest, prefix).kind == xmldbd::Framing::NeedMore);
        KESTR_FUZZ_CHECK(h.action == XMLDB_DUMP || h.action == XMLDB_READ ||
                         !xmldbd::answer(tree, rest, &log).empty());
    }
    if (reader == 1)
        tree.merge(std::string_view(reinterpret_cast<const char*>(rest), n), &error);
    if (reader >= 2)
        client(data[0], rest, n);
    KESTR_FUZZ_CHECK(again.load(tree.to_xml(), &error) && again.to_xml() == tree.to_xml());
    return 0;
}
