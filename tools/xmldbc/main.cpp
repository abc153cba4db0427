// xmldbc: reads and writes the configuration database from the shell, through
// the same client library that kestrd uses.
//
//   xmldbc [-S SOCKET_PATH] ACTION...
//
// Actions run in the order given; the first one that fails ends the run.
// Exit status: 0 success, 1 the daemon cannot be reached, 2 bad usage,
// 3 the daemon refused a request.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "port/comlib/libxmldbc.h"
#include "port/common/unique_fd.h"

namespace {

constexpr int kExitUnreachable = 1;
constexpr int kExitUsage = 2;
constexpr int kExitRefused = 3;

void usage(FILE* to) {
    std::fprintf(to,
                 "usage: xmldbc [-S SOCKET_PATH] ACTION...\n"
                 "  -g NODE        print the node's value\n"
                 "  -s NODE VALUE  set the node's value (creating the node)\n"
                 "  -d NODE        delete the node and everything below it\n"
                 "  -D FILE        dump the whole tree as XML to FILE (- for standard output)\n"
                 "  -r FILE        load an XML file into the tree\n"
                 "  -S             socket of the daemon (default %s)\n"
                 "exit status: 0 done, 1 daemon not reachable, 2 bad usage, 3 request refused\n",
                 kXmldbDefaultSocket);
}

struct Action {
    char option;
    const char* first;
    const char* second;
};

// Tells "no daemon" from "the daemon said no" after a failed status request.
bool reachable(sock_t sn) {
    kestr::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct sockaddr_un addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, sn != nullptr ? sn : kXmldbDefaultSocket, kXmldbSocketPathMax);
    return fd.valid() &&
           connect(fd.get(), reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0;
}

// The daemon opens files in its own working directory; name them absolutely.
std::string absolute(const char* path) {
    if (path[0] == '/')
        return path;
    char* cwd = getcwd(nullptr, 0);
    std::string full = cwd != nullptr ? std::string(cwd) + "/" + path : path;
    std::free(cwd);
    return full;
}

int status_result(sock_t sn, int retcode, const char* what, const char* arg) {
    if (retcode == 0)
        return 0;
    if (!reachable(sn)) {
        std::fprintf(stderr, "xmldbc: cannot reach the database daemon\n");
        return kExitUnreachable;
    }
    std::fprintf(stderr, "xmldbc: the daemon refused %s %s (retcode %d)\n", what, arg, retcode);
    return kExitRefused;
}

// A dump to standard output goes through a private temporary file, since the
// daemon writes dumps to files.
int dump_to_stdout(sock_t sn) {
    const char* dir = std::getenv("TMPDIR");
    std::string name =
        std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/xmldbc-dump-XXXXXX";
    kestr::UniqueFd fd(mkstemp(name.data()));
    if (!fd.valid()) {
        std::perror("xmldbc: temporary file");
        return kExitRefused;
    }
    const int rc = status_result(sn, xmldbc_dump(sn, 0, name.c_str()), "dump to", name.c_str());
    if (rc == 0) {
        char chunk[65536];
        ssize_t n;
        while ((n = read(fd.get(), chunk, sizeof chunk)) > 0) {
            std::fwrite(chunk, 1, static_cast<size_t>(n), stdout);
        }
        std::fflush(stdout);
    }
    unlink(name.c_str());
    return rc;
}

int run(sock_t sn, const Action& a) {
    switch (a.option) {
        case 'g':
            if (xmldbc_get(sn, 0, a.first, stdout) != 0) {
                std::fprintf(stderr, "xmldbc: cannot reach the database daemon\n");
                return kExitUnreachable;
            }
            std::fputc('\n', stdout);
            std::fflush(stdout);
            return 0;
        case 's':
            return status_result(sn, xmldbc_set(sn, 0, a.first, a.second), "set", a.first);
        case 'd':
            return status_result(sn, xmldbc_del(sn, 0, a.first), "delete", a.first);
        case 'D': {
            if (std::strcmp(a.first, "-") == 0)
                return dump_to_stdout(sn);
            const std::string file = absolute(a.first);
            return status_result(sn, xmldbc_dump(sn, 0, file.c_str()), "dump to", file.c_str());
        }
        case 'r': {
            const std::string file = absolute(a.first);
            return status_result(sn, xmldbc_read(sn, 0, file.c_str()), "read of", file.c_str());
        }
    }
    return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
    sock_t sn = nullptr;
    std::vector<Action> actions;
    for (int i = 1; i < argc; ++i) {
        const std::string opt = argv[i];
        const int left = argc - i - 1;
        if (opt == "-h" || opt == "--help") {
            usage(stdout);
            return 0;
        } else if (opt == "-S" && left >= 1) {
            sn = argv[++i];
        } else if ((opt == "-g" || opt == "-d" || opt == "-D" || opt == "-r") && left >= 1) {
            actions.push_back({opt[1], argv[i + 1], nullptr});
            i += 1;
        } else if (opt == "-s" && left >= 2) {
            actions.push_back({'s', argv[i + 1], argv[i + 2]});
            i += 2;
        } else {
            std::fprintf(stderr, "xmldbc: unexpected '%s'\n", argv[i]);
            usage(stderr);
            return kExitUsage;
        }
    }
    if (actions.empty()) {
        usage(stderr);
        return kExitUsage;
    }
    if (sn != nullptr && std::strlen(sn) > kXmldbSocketPathMax) {
        std::fprintf(stderr, "xmldbc: socket path longer than %zu characters\n",
                     kXmldbSocketPathMax);
        return kExitUsage;
    }
    for (const Action& a : actions) {
        const int rc = run(sn, a);
        if (rc != 0)
            return rc;
    }
    return 0;
}
