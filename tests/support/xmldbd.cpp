#include "tests/support/xmldbd.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <thread>

#include "port/comlib/libxmldbc.h"

extern char** environ;

namespace kestr::test {
namespace {

using namespace std::chrono_literals;

std::string temp_file(const std::string& prefix) {
    std::string name = "/tmp/" + prefix + "-XXXXXX";
    const int fd = mkstemp(name.data());
    if (fd < 0)
        return "";
    close(fd);
    return name;
}

// Identity of the file at `path`, to tell a daemon's fresh socket from one
// that was there before it started.
std::pair<ino_t, dev_t> file_id(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
        return {0, 0};
    return {st.st_ino, st.st_dev};
}

bool answers(const std::string& socket_path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    struct sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, socket_path.c_str(), sizeof addr.sun_path - 1);
    const bool ok = connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

int decode_status(int status) {
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return -1;
}

}  // namespace

std::string tool_path(const std::string& name) {
    return std::string(KESTR_BIN_DIR) + "/" + name;
}

std::string seed_path(const std::string& name) {
    return std::string(KESTR_SOURCE_DIR) + "/tools/seeds/" + name;
}

XmldbdProcess::XmldbdProcess(const std::string& seed_file) {
    const std::string socket_path = "/var/run/xmldb_sock";
    std::vector<std::string> args = {tool_path("xmldbd"), "-s", socket_path};
    if (!seed_file.empty()) {
        args.push_back("-f");
        args.push_back(seed_file);
    }
    std::vector<char*> argv;
    for (auto& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);

    const auto before = file_id(socket_path);
    if (posix_spawn(&pid_, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
        pid_ = -1;
        return;
    }
    // The daemon is up once a socket of its own answers (not one that was
    // there before); one that exits (a refused seed, a socket in use) or takes
    // longer than five seconds is not.
    for (int i = 0; i < 500 && status_ < 0; ++i) {
        const auto now = file_id(socket_path);
        if (now.first != 0 && now != before && answers(socket_path)) {
            ready_ = served_ = true;
            return;
        }
        std::this_thread::sleep_for(10ms);
        reap(false);
    }
}

std::unique_ptr<XmldbdProcess> XmldbdProcess::with_xml(const std::string& xml) {
    const std::string seed = temp_file("xmldbd-seed");
    std::ofstream(seed) << xml;
    auto p = std::make_unique<XmldbdProcess>(seed);
    p->seed_copy_ = seed;
    return p;
}

void XmldbdProcess::reap(bool wait) {
    if (pid_ < 0 || status_ >= 0)
        return;
    int status = 0;
    if (waitpid(pid_, &status, wait ? 0 : WNOHANG) == pid_) {
        status_ = decode_status(status);
        ready_ = false;
    }
}

int XmldbdProcess::stop() {
    if (pid_ < 0)
        return -1;
    if (status_ < 0) {
        kill(pid_, SIGTERM);
        // A daemon that ignores SIGTERM for five seconds is killed.
        for (int i = 0; i < 500 && status_ < 0; ++i) {
            reap(false);
            if (status_ < 0)
                std::this_thread::sleep_for(10ms);
        }
        if (status_ < 0) {
            kill(pid_, SIGKILL);
            reap(true);
        }
    }
    return status_;
}

XmldbdProcess::~XmldbdProcess() {
    // A daemon that served and then did not end cleanly crashed or tripped a
    // sanitizer: that fails the test whatever it asserted.
    const bool served = served_;
    const int status = stop();
    if (served && status != 0)
        ADD_FAILURE() << "xmldbd ended with status " << status;
    if (!seed_copy_.empty())
        unlink(seed_copy_.c_str());
}

std::string db_get(const std::string& path) {
    char* data = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&data, &size);
    if (out == nullptr)
        return "";
    xmldbc_get(nullptr, 0, path.c_str(), out);
    std::fclose(out);
    std::string value(data, size);
    std::free(data);
    return value;
}

int db_set(const std::string& path, const std::string& value) {
    return xmldbc_set(nullptr, 0, path.c_str(), value.c_str());
}

}  // namespace kestr::test
