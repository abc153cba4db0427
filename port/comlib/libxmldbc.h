// Client of the device's configuration database.
//
// The database daemon serves a local stream socket ("/var/run/xmldb_sock" by
// default). Every request opens a connection of its own, sends a 12-byte
// header and one NUL-terminated text argument, takes the reply and closes the
// connection, so the library keeps no state and any thread may call it.
//
// Replies come in three patterns:
//   status      the daemon answers with a 12-byte header whose `retcode` is
//               the result; -1 also when the daemon cannot be reached.
//   into buffer the daemon answers with NUL-terminated text, stored in the
//               caller's (cleared) buffer; 0 once the request was sent.
//   to stream   the same text copied to a stdio stream (null: stdout).
//
// Nothing here times out: a daemon that accepts and never answers blocks the
// caller, exactly like the device's own daemon would.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

// Socket path; null selects the default.
typedef const char* sock_t;
typedef uint16_t action_t;
typedef uint32_t flag_t;

// Header of every request and of a status reply, in host byte order (client
// and daemon share the machine).
typedef struct _rgdb_ipc_t {
    uint16_t action;  // request code
    uint16_t length;  // argument bytes after the header, NUL included
    uint32_t flags;   // passed through to the daemon
    int32_t retcode;  // result in a status reply; 0 in a request
} rgdb_ipc_t;
static_assert(sizeof(rgdb_ipc_t) == 12, "the request header is 12 bytes on the wire");

constexpr const char* kXmldbDefaultSocket = "/var/run/xmldb_sock";
// Longest socket path kept (sun_path holds 108 bytes with the terminator).
constexpr size_t kXmldbSocketPathMax = 107;
// Longest "first second" argument of the two-value requests.
constexpr size_t kXmldbTwoValueMax = 510;

// Request codes. 8 and 9 have no entry point.
enum : action_t {
    XMLDB_GET = 1,
    XMLDB_SET = 2,
    XMLDB_DEL = 3,
    XMLDB_RELOAD = 4,
    XMLDB_DUMP = 5,
    XMLDB_READ = 6,
    XMLDB_PATCH = 7,
    XMLDB_EPHP = 10,
    XMLDB_SETEXT = 11,
    XMLDB_GETEXT = 12,
    XMLDB_TIMER = 13,
    XMLDB_KILLTIMER = 14,
    XMLDB_WRITE = 15,
};

int xmldbc_get(sock_t sn, flag_t f, const char* node, FILE* out);
ssize_t xmldbc_get_wb(sock_t sn, flag_t f, const char* node, char* buff, size_t size);
int xmldbc_set(sock_t sn, flag_t f, const char* node, const char* value);
int xmldbc_del(sock_t sn, flag_t f, const char* node);
int xmldbc_reload(sock_t sn, flag_t f, const char* file);
int xmldbc_dump(sock_t sn, flag_t f, const char* file);
int xmldbc_read(sock_t sn, flag_t f, const char* file);
int xmldbc_patch(sock_t sn, flag_t f, const char* file);
int xmldbc_ephp(sock_t sn, flag_t f, const char* file, FILE* out);
ssize_t xmldbc_ephp_wb(sock_t sn, flag_t f, const char* file, char* buff, size_t size);
int xmldbc_setext(sock_t sn, flag_t f, const char* node, const char* cmd);
int xmldbc_getext(sock_t sn, flag_t f, const char* node, const char* cmd, FILE* out);
int xmldbc_timer(sock_t sn, flag_t f, const char* cmd);
int xmldbc_killtimer(sock_t sn, flag_t f, const char* tag);
int xmldbc_write(sock_t sn, flag_t f, const char* node, FILE* out);

// Text and shell helpers of the same library.
// First character of `string` that is not blank, tab, LF or CR (null stays null).
char* lxmldbc_eatwhite(char* string);
// Cuts trailing blanks, tabs, LFs and CRs off `ptr` in place (null stays null).
char* lxmldbc_reatwhite(char* ptr);
// Runs a command line of at most 1023 characters through the shell; its status.
int lxmldbc_system(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Runs a command line of at most 1023 characters and keeps at most `size` - 1
// characters of its output in `buf`, without one trailing line feed. 0, or -1
// with `buf` emptied when the command could not be started.
int lxmldbc_run_shell(char* buf, int size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
