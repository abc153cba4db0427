// The stand-in database daemon's request parser: the framing check over
// everything one connection has sent, the description of a connection that
// ended early, and the answer to a complete request, given to a tree loaded
// from the registrar's seed file.
//
// A complete request must be complete only at its full length (every
// shorter prefix still needs more), and its answer must be in the pattern
// the client waits for: a 12-byte status header echoing the action and
// flags, or one NUL-terminated text. File requests (dump, read) work in a
// scratch directory of their own; a path with a '/' is not passed on, so
// the fuzzer cannot name files elsewhere.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "fuzz/support.h"
#include "port/comlib/libxmldbc.h"
#include "tools/xmldbd/request.h"
#include "tools/xmldbd/tree.h"

namespace {

std::string g_seed;

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

rgdb_ipc_t header_of(const uint8_t* data) {
    rgdb_ipc_t h;
    std::memcpy(&h, data, sizeof h);
    return h;
}

bool is_text_reply(uint16_t action) {
    return action == XMLDB_GET || action == XMLDB_EPHP || action == XMLDB_GETEXT ||
           action == XMLDB_WRITE;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    g_seed = read_file(KESTR_SOURCE_DIR "/tools/seeds/registrar.xml");
    kestr::fuzz::isolate({.mount = true}, "fuzz_xmldbd_request");
    char dir[] = "/var/run/xmldbd-scratch.XXXXXX";
    if (g_seed.empty() || mkdtemp(dir) == nullptr || chdir(dir) != 0) {
        std::perror("fuzz_xmldbd_request: seed file or scratch directory");
        std::exit(2);
    }
    std::ofstream(std::string(dir) + "/seed.xml") << g_seed;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const xmldbd::Framing f = xmldbd::check_request(data, size);
    const std::string eof = xmldbd::describe_eof(data, size);
    KESTR_FUZZ_CHECK(size == 0 || !eof.empty());
    KESTR_FUZZ_CHECK((f.kind == xmldbd::Framing::Bad) == !f.problem.empty());
    if (f.kind != xmldbd::Framing::Complete)
        return 0;

    const rgdb_ipc_t h = header_of(data);
    KESTR_FUZZ_CHECK(size == xmldbd::kHeaderSize + h.length);
    KESTR_FUZZ_CHECK(data[size - 1] == '\0');
    for (size_t prefix = 0; prefix < size; prefix += 1 + prefix / 8) {
        KESTR_FUZZ_CHECK(xmldbd::check_request(data, prefix).kind == xmldbd::Framing::NeedMore);
    }

    const char* arg = reinterpret_cast<const char*>(data + xmldbd::kHeaderSize);
    const bool file_request = h.action == XMLDB_DUMP || h.action == XMLDB_READ;
    if (file_request && std::strchr(arg, '/') != nullptr)
        return 0;

    xmldbd::ConfigTree tree;
    std::string error;
    KESTR_FUZZ_CHECK(tree.load(g_seed, &error));
    std::string log;
    const std::string reply = xmldbd::answer(tree, data, &log);
    if (is_text_reply(h.action)) {
        KESTR_FUZZ_CHECK(!reply.empty() && reply.back() == '\0');
    } else {
        KESTR_FUZZ_CHECK(reply.size() == sizeof(rgdb_ipc_t));
        const rgdb_ipc_t r = header_of(reinterpret_cast<const uint8_t*>(reply.data()));
        KESTR_FUZZ_CHECK(r.action == h.action && r.flags == h.flags && r.length == 0);
        KESTR_FUZZ_CHECK(r.retcode == 0 || r.retcode == -1);
    }
    // What the request left behind can still be written out and read back.
    const std::string xml = tree.to_xml();
    xmldbd::ConfigTree again;
    KESTR_FUZZ_CHECK(again.load(xml, &error));
    KESTR_FUZZ_SAME_TEXT(again.to_xml(), xml);

    if (h.action == XMLDB_DUMP && std::strcmp(arg, "seed.xml") != 0)
        unlink(arg);
    return 0;
}
