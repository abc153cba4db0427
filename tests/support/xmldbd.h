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

namespace kestr::test {

// Programs built next to the tests, and the seed files of tools/seeds.
std::string tool_path(const std::string& name);  // "xmldbd" -> ".../build/bin/xmldbd"
std::string seed_path(const std::string& name);  // "registrar.xml" -> ".../tools/seeds/..."

class XmldbdProcess {
  public:
    // Starts the daemon with `seed_file` (none when empty) and waits until its
    // socket answers.
    explicit XmldbdProcess(const std::string& seed_file = "");
    ~XmldbdProcess();  // stops and reaps it, also when the test failed
    XmldbdProcess(const XmldbdProcess&) = delete;
    XmldbdProcess& operator=(const XmldbdProcess&) = delete;

    // Starts the daemon with an XML text as its seed.
    static std::unique_ptr<XmldbdProcess> with_xml(const std::string& xml);

    // True once the socket answered; false when the daemon exited or never
    // answered within a few seconds.
    bool ok() const { return ready_; }
    // SIGTERM, then the exit status (or 128 + signal). -1 if not running.
    int stop();

  private:
    void reap(bool wait);

    pid_t pid_ = -1;
    bool ready_ = false;
    bool served_ = false;
    int status_ = -1;
    std::string seed_copy_;
};

// Reads and writes a node through the client library on the default socket.
std::string db_get(const std::string& path);
int db_set(const std::string& path, const std::string& value);

}  // namespace kestr::test
