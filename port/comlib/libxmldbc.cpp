#include "port/comlib/libxmldbc.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "port/common/bytes.h"
#include "port/common/unique_fd.h"

namespace {

using kestr::UniqueFd;

// Command lines of the shell helpers: at most 1023 characters.
constexpr size_t kCommandSize = 1024;
// Piece size when copying a reply to a stream.
constexpr size_t kStreamChunk = 1024;

// A connection to the daemon, or -1.
int __open_socket(sock_t sockname) {
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM, 0));
    if (!fd.valid())
        return -1;
    // Children that the caller spawns must not inherit a half-done request.
    fcntl(fd.get(), F_SETFD, FD_CLOEXEC);

    struct sockaddr_un addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    const char* path = sockname != nullptr ? sockname : kXmldbDefaultSocket;
    std::strncpy(addr.sun_path, path, kXmldbSocketPathMax);
    addr.sun_path[kXmldbSocketPathMax] = '\0';
    if (connect(fd.get(), reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0)
        return -1;
    return fd.release();
}

// Header, then `length` argument bytes. MSG_NOSIGNAL: a daemon that has gone
// away is an error return, not a SIGPIPE that kills the caller.
int send_xmldb_cmd(int fd, action_t action, flag_t flags, const char* data, uint16_t length) {
    rgdb_ipc_t header;
    std::memset(&header, 0, sizeof header);
    header.action = action;
    header.length = length;
    header.flags = flags;
    header.retcode = 0;
    if (send(fd, &header, sizeof header, MSG_NOSIGNAL) <= 0)
        return -1;
    if (send(fd, data, length, MSG_NOSIGNAL) <= 0)
        return -1;
    return 0;
}

// The wire length of a text argument: its length with the NUL, low 16 bits.
uint16_t argument_length(const char* text) {
    return static_cast<uint16_t>(std::strlen(text) + 1);
}

// Connects and sends; the connection, or an invalid one.
UniqueFd open_and_send(sock_t sn, action_t a, flag_t f, const char* param, uint16_t size) {
    UniqueFd fd(__open_socket(sn));
    if (!fd.valid())
        return fd;
    if (send_xmldb_cmd(fd.get(), a, f, param, size) != 0)
        fd.reset();
    return fd;
}

// Blocks until `fd` is readable. Only a wait that cannot go on (a bad
// descriptor) gives up; an interrupted one is repeated.
bool wait_readable(int fd) {
    for (;;) {
        struct pollfd p = {fd, POLLIN, 0};
        const int n = poll(&p, 1, -1);
        if (n > 0)
            return true;
        if (n < 0 && errno != EINTR && errno != EAGAIN && errno != ENOMEM)
            return false;
    }
}

ssize_t read_some(int fd, void* buf, size_t size) {
    ssize_t n;
    do {
        n = read(fd, buf, size);
    } while (n < 0 && errno == EINTR);
    return n;
}

int _cmd_wo_out(sock_t sn, action_t a, flag_t f, const char* param, uint16_t size) {
    UniqueFd fd = open_and_send(sn, a, f, param, size);
    if (!fd.valid())
        return -1;
    rgdb_ipc_t reply;
    if (read_some(fd.get(), &reply, sizeof reply) != static_cast<ssize_t>(sizeof reply))
        return -1;
    return reply.retcode;
}

// Assembles a NUL-terminated reply that may come in several pieces. At most
// `buff_size` bytes are stored; a reply that fills the buffer without its NUL
// is cut, and its last byte becomes the terminator so the caller's text still
// ends inside the buffer.
void redirect_to_buffer(int fd, char* buff, size_t buff_size) {
    const kestr::Span<char> reply(buff, buff_size);
    size_t written = 0;
    while (written < reply.size()) {
        if (!wait_readable(fd))
            break;
        const kestr::Span<char> rest = reply.subspan(written);
        const ssize_t n = read_some(fd, rest.data(), rest.size());
        if (n <= 0)
            break;
        written += static_cast<size_t>(n);
        if (reply[written - 1] == '\0')
            return;
    }
    if (!reply.empty() && written == reply.size())
        reply[reply.size() - 1] = '\0';
}

// Copies a NUL-terminated reply to `out` piece by piece.
void redirect_output(int fd, FILE* out) {
    char chunk[kStreamChunk];
    for (;;) {
        if (!wait_readable(fd))
            break;
        const ssize_t n = read_some(fd, chunk, sizeof chunk);
        if (n <= 0)
            break;
        const size_t len = static_cast<size_t>(n);
        if (chunk[len - 1] == '\0') {
            std::fwrite(chunk, 1, std::strlen(chunk), out);
            break;
        }
        std::fwrite(chunk, 1, len, out);
    }
    std::fflush(out);
}

int _cmd_w_out(sock_t sn, action_t a, flag_t f, const char* param, uint16_t size, FILE* out) {
    UniqueFd fd = open_and_send(sn, a, f, param, size);
    if (!fd.valid())
        return -1;
    redirect_output(fd.get(), out != nullptr ? out : stdout);
    return 0;
}

ssize_t cmd_to_buffer(sock_t sn, action_t a, flag_t f, const char* param, char* buff, size_t size) {
    if (param == nullptr || (buff == nullptr && size > 0))
        return -1;
    UniqueFd fd = open_and_send(sn, a, f, param, argument_length(param));
    if (!fd.valid())
        return -1;
    redirect_to_buffer(fd.get(), buff, size);
    return 0;
}

int one_value(sock_t sn, action_t a, flag_t f, const char* text) {
    if (text == nullptr)
        return -1;
    return _cmd_wo_out(sn, a, f, text, argument_length(text));
}

// "first second", cut to 510 characters. An empty second value still leaves
// the blank, so the daemon sees the node followed by an empty value.
struct TwoValues {
    char text[kXmldbTwoValueMax + 2];
    uint16_t length;
};

bool compose(TwoValues& tv, const char* first, const char* second) {
    if (first == nullptr || second == nullptr)
        return false;
    std::memset(tv.text, 0, sizeof tv.text);
    std::snprintf(tv.text, kXmldbTwoValueMax + 1, "%s %s", first, second);
    tv.length = argument_length(tv.text);
    return true;
}

}  // namespace

int xmldbc_get(sock_t sn, flag_t f, const char* node, FILE* out) {
    if (node == nullptr)
        return -1;
    return _cmd_w_out(sn, XMLDB_GET, f, node, argument_length(node), out);
}

ssize_t xmldbc_get_wb(sock_t sn, flag_t f, const char* node, char* buff, size_t size) {
    return cmd_to_buffer(sn, XMLDB_GET, f, node, buff, size);
}

int xmldbc_set(sock_t sn, flag_t f, const char* node, const char* value) {
    TwoValues tv;
    if (!compose(tv, node, value))
        return -1;
    return _cmd_wo_out(sn, XMLDB_SET, f, tv.text, tv.length);
}

int xmldbc_del(sock_t sn, flag_t f, const char* node) {
    return one_value(sn, XMLDB_DEL, f, node);
}

int xmldbc_reload(sock_t sn, flag_t f, const char* file) {
    return one_value(sn, XMLDB_RELOAD, f, file);
}

int xmldbc_dump(sock_t sn, flag_t f, const char* file) {
    return one_value(sn, XMLDB_DUMP, f, file);
}

int xmldbc_read(sock_t sn, flag_t f, const char* file) {
    return one_value(sn, XMLDB_READ, f, file);
}

int xmldbc_patch(sock_t sn, flag_t f, const char* file) {
    return one_value(sn, XMLDB_PATCH, f, file);
}

int xmldbc_ephp(sock_t sn, flag_t f, const char* file, FILE* out) {
    if (file == nullptr)
        return -1;
    return _cmd_w_out(sn, XMLDB_EPHP, f, file, argument_length(file), out);
}

ssize_t xmldbc_ephp_wb(sock_t sn, flag_t f, const char* file, char* buff, size_t size) {
    return cmd_to_buffer(sn, XMLDB_EPHP, f, file, buff, size);
}

int xmldbc_setext(sock_t sn, flag_t f, const char* node, const char* cmd) {
    TwoValues tv;
    if (!compose(tv, node, cmd))
        return -1;
    return _cmd_wo_out(sn, XMLDB_SETEXT, f, tv.text, tv.length);
}

int xmldbc_getext(sock_t sn, flag_t f, const char* node, const char* cmd, FILE* out) {
    TwoValues tv;
    if (!compose(tv, node, cmd))
        return -1;
    return _cmd_w_out(sn, XMLDB_GETEXT, f, tv.text, tv.length, out);
}

int xmldbc_timer(sock_t sn, flag_t f, const char* cmd) {
    return one_value(sn, XMLDB_TIMER, f, cmd);
}

int xmldbc_killtimer(sock_t sn, flag_t f, const char* tag) {
    return one_value(sn, XMLDB_KILLTIMER, f, tag);
}

int xmldbc_write(sock_t sn, flag_t f, const char* node, FILE* out) {
    if (node == nullptr)
        return -1;
    return _cmd_w_out(sn, XMLDB_WRITE, f, node, argument_length(node), out);
}

// ---- text and shell helpers ----

namespace {
bool is_white(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}
}  // namespace

char* lxmldbc_eatwhite(char* string) {
    if (string == nullptr)
        return nullptr;
    const kestr::Span<char> text(string, std::strlen(string));
    size_t skip = 0;
    while (skip < text.size() && is_white(text[skip]))
        ++skip;
    return text.subspan(skip).data();
}

char* lxmldbc_reatwhite(char* ptr) {
    if (ptr == nullptr)
        return nullptr;
    const kestr::Span<char> text(ptr, std::strlen(ptr));
    size_t len = text.size();
    while (len > 0 && is_white(text[len - 1]))
        text[--len] = '\0';
    return ptr;
}

int lxmldbc_system(const char* format, ...) {
    char command[kCommandSize] = {};
    va_list args;
    va_start(args, format);
    std::vsnprintf(command, sizeof command, format, args);
    va_end(args);
    return std::system(command);
}

int lxmldbc_run_shell(char* buf, int size, const char* format, ...) {
    if (buf == nullptr || size < 1)
        return -1;
    char command[kCommandSize] = {};
    va_list args;
    va_start(args, format);
    std::vsnprintf(command, sizeof command, format, args);
    va_end(args);

    const kestr::Span<char> out(buf, static_cast<size_t>(size));
    out[0] = '\0';
    FILE* pipe = popen(command, "r");
    if (pipe == nullptr)
        return -1;
    const size_t n = std::fread(out.data(), 1, out.size() - 1, pipe);
    out[n] = '\0';
    pclose(pipe);
    if (n > 0 && out[n - 1] == '\n')
        out[n - 1] = '\0';
    return 0;
}
