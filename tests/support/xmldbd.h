// A real configuration database for tests: starts the project's stand-in
// daemon (build/bin/xmldbd) and stops it again.
//
// Tests enter private namespaces first (KESTR_ENTER_NAMESPACES) so that the
// default socket "/var/run/xmldb_sock" lies on a private tmpfs; the daemon
// inherits the namespaces and everything vanishes with the test process.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

namespace kestr::test {

// Programs built next to the tests, and the seed files of tools/seeds.
std::string tool_path(const std::string& name);  // "xmldbd" -> ".../build/bin/xmldbd"
std::string seed_path(const std::string& name);  // "registrar.xml" -> ".../tools/seeds/..."

struct XmldbdOptions {
    std::string socket_path = "/var/run/xmldb_sock";
    // Keep the daemon's standard error for stderr_text() instead of passing
    // it through to the test's.
    bool capture_stderr = false;
    std::vector<std::string> extra_args;
};

class XmldbdProcess {
  public:
    // Starts the daemon with `seed_file` (none when empty) and waits until its
    // socket answers.
    explicit XmldbdProcess(const std::string& seed_file = "", XmldbdOptions options = {});
    ~XmldbdProcess();  // stops and reaps it, also when the test failed
    XmldbdProcess(const XmldbdProcess&) = delete;
    XmldbdProcess& operator=(const XmldbdProcess&) = delete;

    // Starts the daemon with an XML text as its seed.
    static std::unique_ptr<XmldbdProcess> with_xml(const std::string& xml,
                                                   XmldbdOptions options = {});

    // True once the socket answered; false when the daemon exited or never
    // answered within a few seconds.
    bool ok() const { return ready_; }
    pid_t pid() const { return pid_; }
    // SIGTERM, then the exit status (or 128 + signal). -1 if not running.
    int stop();
    // Exit status of a daemon that ended on its own (e.g. a refused seed),
    // -1 while it runs.
    int exit_status() const { return status_; }
    std::string stderr_text() const;

  private:
    void reap(bool wait);

    pid_t pid_ = -1;
    bool ready_ = false;
    bool served_ = false;
    int status_ = -1;
    std::string seed_copy_;
    std::string stderr_file_;
};

// Reads and writes a node through the client library on the default socket.
std::string db_get(const std::string& path);
int db_set(const std::string& path, const std::string& value);

}  // namespace kestr::test
