#include "tools/xmldbd/request.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "port/comlib/libxmldbc.h"
#include "port/common/unique_fd.h"

namespace xmldbd {
namespace {

using kestr::UniqueFd;

rgdb_ipc_t header_of(const uint8_t* data) {
    rgdb_ipc_t h;
    std::memcpy(&h, data, sizeof h);
    return h;
}

std::string status_reply(const rgdb_ipc_t& request, int32_t retcode) {
    rgdb_ipc_t h;
    std::memset(&h, 0, sizeof h);
    h.action = request.action;
    h.flags = request.flags;
    h.retcode = retcode;
    return std::string(reinterpret_cast<const char*>(&h), sizeof h);
}

std::string text_reply(const std::string& text) {
    return std::string(text.c_str(), text.size() + 1);
}

// Files are opened without blocking and only regular files are used: a FIFO
// or device named by a client must not stall the daemon that serves everyone.
UniqueFd open_regular(const char* path, int flags, std::string* why) {
    UniqueFd fd(open(path, flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0644));
    struct stat st;
    if (!fd.valid()) {
        *why = std::strerror(errno);
    } else if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        *why = "not a regular file";
        fd.reset();
    }
    return fd;
}

bool write_file(const char* path, const std::string& text, std::string* why) {
    UniqueFd fd = open_regular(path, O_WRONLY | O_CREAT | O_TRUNC, why);
    if (!fd.valid())
        return false;
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(fd.get(), text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            *why = std::strerror(errno);
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

bool read_file(const char* path, std::string* text, std::string* why) {
    UniqueFd fd = open_regular(path, O_RDONLY, why);
    if (!fd.valid())
        return false;
    char chunk[65536];
    for (;;) {
        const ssize_t n = read(fd.get(), chunk, sizeof chunk);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            *why = std::strerror(errno);
            return false;
        }
        if (n == 0)
            return true;
        if (text->size() + static_cast<size_t>(n) > kMaxFileSize) {
            *why = "larger than " + std::to_string(kMaxFileSize) + " bytes";
            return false;
        }
        text->append(chunk, static_cast<size_t>(n));
    }
}

}  // namespace

Framing check_request(const uint8_t* data, size_t size) {
    Framing f;
    if (size < kHeaderSize)
        return f;
    const rgdb_ipc_t h = header_of(data);
    if (h.length > kMaxArgument) {
        f.kind = Framing::Bad;
        f.problem = "oversized argument: " + std::to_string(h.length) + " bytes, at most " +
                    std::to_string(kMaxArgument);
        return f;
    }
    if (h.length == 0) {
        f.kind = Framing::Bad;
        f.problem = "argument without NUL: length 0";
        return f;
    }
    const size_t received = size - kHeaderSize;
    if (received < h.length)
        return f;
    f.kind = Framing::Bad;
    if (received > h.length) {
        f.problem = "length " + std::to_string(h.length) + " disagrees with the " +
                    std::to_string(received) + " argument bytes sent";
    } else if (std::memchr(data + kHeaderSize, '\0', h.length) != data + size - 1) {
        f.problem = "argument is not one NUL-terminated text";
    } else {
        f.kind = Framing::Complete;
    }
    return f;
}

std::string describe_eof(const uint8_t* data, size_t size) {
    if (size == 0)
        return "";
    if (size < kHeaderSize)
        return "short header: " + std::to_string(size) + " of 12 bytes";
    return "disconnected mid-request: " + std::to_string(size - kHeaderSize) + " of " +
           std::to_string(header_of(data).length) + " argument bytes";
}

std::string answer(ConfigTree& tree, const uint8_t* request, std::string* log) {
    const rgdb_ipc_t h = header_of(request);
    const char* arg = reinterpret_cast<const char*>(request + kHeaderSize);
    std::string why;
    switch (h.action) {
        case XMLDB_GET:
            return text_reply(tree.get(arg).value_or(""));
        case XMLDB_SET: {
            // "path value": the value is everything after the first blank.
            const std::string_view text(arg);
            const size_t blank = text.find(' ');
            const std::string_view value =
                blank == std::string_view::npos ? std::string_view() : text.substr(blank + 1);
            return status_reply(h, tree.set(text.substr(0, blank), value) ? 0 : -1);
        }
        case XMLDB_DEL:
            return status_reply(h, tree.del(arg) ? 0 : -1);
        case XMLDB_DUMP:
            if (write_file(arg, tree.to_xml(), &why))
                return status_reply(h, 0);
            *log = std::string("dump to ") + arg + ": " + why;
            return status_reply(h, -1);
        case XMLDB_READ: {
            std::string xml;
            if (read_file(arg, &xml, &why) && tree.merge(xml, &why))
                return status_reply(h, 0);
            *log = std::string("read of ") + arg + ": " + why;
            return status_reply(h, -1);
        }
        // Requests this stand-in does not serve still get an answer in the
        // pattern their client waits for, so no client blocks on it.
        case XMLDB_EPHP:
        case XMLDB_GETEXT:
        case XMLDB_WRITE:
            return text_reply("");
        default:
            return status_reply(h, -1);
    }
}

}  // namespace xmldbd
