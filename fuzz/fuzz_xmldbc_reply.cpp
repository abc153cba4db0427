// The database client's reply readers, and the device port that reads
// values through them, against a daemon that answers with the input.
//
// A small server on "/var/run/xmldb_sock" (in a private tmpfs) takes each
// request whole and answers it with the next connection's pieces of the
// input, one piece at a time: a piece is sent once the socket's send queue
// has emptied, so the client mostly reads the reply cut where the input
// says. Mostly: the queue can report empty while the client is still in the
// middle of a piece, so two pieces may reach it in one read. Input layout:
//   byte 0  what the client asks: 0 a value into a buffer, 1 a set (status
//           reply), 2 a value copied to a stream, 3 the device port's reads
//           of a band's settings, the AL MAC and a count;
//   byte 1  the buffer size for 0 (1 to 256);
//   then    pieces, each a 16-bit big-endian length and that many bytes; a
//           length of 0 ends the current connection's reply.
// What each client call may return follows from the pieces alone, whatever
// the cuts between its reads.
#include <linux/sockios.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fuzz/support.h"
#include "port/19051_port.h"
#include "port/comlib/libxmldbc.h"
#include "port/common/bytes.h"

namespace {

using Reply = std::vector<std::string>;  // the pieces of one connection's reply

std::mutex g_lock;
std::vector<Reply> g_replies;  // one per connection, in order
size_t g_next = 0;
int g_listen = -1;

bool read_full(int fd, void* buf, size_t len) {
    auto* p = static_cast<uint8_t*>(buf);
    while (len > 0) {
        const ssize_t n = read(fd, p, len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool send_all(int fd, const std::string& piece) {
    size_t done = 0;
    while (done < piece.size()) {
        const ssize_t n = send(fd, piece.data() + done, piece.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// Until the send queue is empty (the client has taken the piece, as a rule)
// or the client has closed its end.
void wait_drained(int fd) {
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    int queued = 0;
    while (ioctl(fd, SIOCOUTQ, &queued) == 0 && queued > 0 &&
           std::chrono::steady_clock::now() < give_up) {
        sched_yield();
    }
}

void serve() {
    for (;;) {
        const int fd = accept4(g_listen, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            std::perror("fuzz_xmldbc_reply: accept");
            std::abort();
        }
        rgdb_ipc_t h;
        std::vector<uint8_t> arg;
        if (read_full(fd, &h, sizeof h)) {
            arg.resize(h.length);
            read_full(fd, arg.data(), arg.size());
        }
        Reply reply;
        {
            std::lock_guard<std::mutex> hold(g_lock);
            if (g_next < g_replies.size())
                reply = g_replies[g_next++];
        }
        for (const std::string& piece : reply) {
            if (!send_all(fd, piece))
                break;
            wait_drained(fd);
        }
        close(fd);
    }
}

std::vector<Reply> replies_of(const uint8_t* p, size_t n) {
    std::vector<Reply> out(1);
    kestr::ByteReader r(p, n);
    uint16_t len = 0;
    while (r.u16(&len)) {
        if (len == 0) {
            out.emplace_back();
            continue;
        }
        const size_t take = std::min<size_t>(len, r.remaining());
        if (take == 0)
            break;
        std::string piece(reinterpret_cast<const char*>(r.data()), take);
        r.skip(take);
        out.back().push_back(std::move(piece));
    }
    return out;
}

std::string concat(const Reply& reply) {
    std::string all;
    for (const std::string& piece : reply)
        all += piece;
    return all;
}

// The text a caller of the into-buffer pattern sees in its cleared buffer of
// `size` bytes: the reply up to its first NUL, and never more than size - 1
// characters.
std::string expected_text(const Reply& reply, size_t size) {
    const std::string all = concat(reply).substr(0, size);
    const size_t nul = all.find('\0');
    if (nul != std::string::npos)
        return all.substr(0, nul);
    return all.size() == size ? all.substr(0, size - 1) : all;
}

// What the to-stream pattern may copy. It writes each read whole until a
// read ends in a NUL, and that one up to its first NUL; where reads end
// depends on how the pieces arrived, so the copy is some prefix of the reply
// that ends at the reply's end or right before a NUL.
bool possible_stream(const Reply& reply, const std::string& copied) {
    const std::string all = concat(reply);
    if (copied.size() > all.size() || all.compare(0, copied.size(), copied) != 0)
        return false;
    return copied.size() == all.size() || all[copied.size()] == '\0';
}

// The status of the status pattern: the retcode of the first 12 bytes read
// in one go. A first piece of 12 bytes or more gives them; a shorter one may
// be read alone (-1) or together with what follows.
bool possible_status(const Reply& reply, int32_t status) {
    const std::string all = concat(reply);
    int32_t retcode = -1;
    if (all.size() >= sizeof(rgdb_ipc_t))
        std::memcpy(&retcode, all.data() + offsetof(rgdb_ipc_t, retcode), sizeof retcode);
    if (!reply.empty() && reply[0].size() >= sizeof(rgdb_ipc_t))
        return status == retcode;
    return status == -1 || status == retcode;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kestr::fuzz::isolate({.mount = true}, "fuzz_xmldbc_reply");
    g_listen = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", kXmldbDefaultSocket);
    if (g_listen < 0 ||
        bind(g_listen, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(g_listen, 16) != 0) {
        std::perror("fuzz_xmldbc_reply: database socket");
        std::exit(2);
    }
    std::thread(serve).detach();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2)
        return 0;
    const uint8_t op = data[0] % 4;
    const size_t buffer_size = 1 + static_cast<size_t>(data[1]);
    std::vector<Reply> replies = replies_of(data + 2, size - 2);
    {
        std::lock_guard<std::mutex> hold(g_lock);
        g_replies = replies;
        g_next = 0;
    }
    const Reply& first = replies[0];

    switch (op) {
        case 0: {
            // Exactly the caller's size, cleared, as the device port does it.
            std::vector<char> buf(buffer_size, '\0');
            KESTR_FUZZ_CHECK(xmldbc_get_wb(nullptr, 0, "/a/b", buf.data(), buf.size()) == 0);
            KESTR_FUZZ_CHECK(std::memchr(buf.data(), '\0', buf.size()) != nullptr);
            KESTR_FUZZ_CHECK(std::string(buf.data()) == expected_text(first, buf.size()));
            break;
        }
        case 1:
            KESTR_FUZZ_CHECK(possible_status(first, xmldbc_set(nullptr, 0, "/a/b", "value")));
            break;
        case 2: {
            char* text = nullptr;
            size_t text_len = 0;
            FILE* out = open_memstream(&text, &text_len);
            KESTR_FUZZ_CHECK(out != nullptr);
            KESTR_FUZZ_CHECK(xmldbc_get(nullptr, 0, "/a/b", out) == 0);
            std::fclose(out);
            KESTR_FUZZ_CHECK(possible_stream(first, std::string(text, text_len)));
            std::free(text);
            break;
        }
        default: {
            EncryptSetting_t setting;
            std::memset(&setting, 0, sizeof setting);
            KESTR_FUZZ_CHECK(IEEE19051Port_GetEncryptSetting(0, &setting) == 0);
            KESTR_FUZZ_CHECK(strnlen(setting.ssid, sizeof setting.ssid) < sizeof setting.ssid);
            KESTR_FUZZ_CHECK(strnlen(setting.pwd, sizeof setting.pwd) < sizeof setting.pwd);
            KESTR_FUZZ_CHECK(setting.authtype == 0x0022 || setting.authtype == 0x0001);
            KESTR_FUZZ_CHECK(setting.encrtype == 0x000C || setting.encrtype == 0x0002 ||
                             setting.encrtype == 0x0001);
            struct ether_addr mac;
            KESTR_FUZZ_CHECK(IEEE19051Port_GetAlMac(&mac) == 0);
            IEEE19051Port_GetCount(1);
            break;
        }
    }
    return 0;
}
