// The stand-in database daemon's XML reader: a seed file loaded at start and
// files named by read requests are merged into the tree. Whatever a load or
// a merge accepts must give a tree that is written out and read back
// unchanged.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "fuzz/support.h"
#include "tools/xmldbd/tree.h"

namespace {

std::string g_seed;

void survives_a_dump(const xmldbd::ConfigTree& tree) {
    const std::string xml = tree.to_xml();
    xmldbd::ConfigTree again;
    std::string error;
    KESTR_FUZZ_CHECK(again.load(xml, &error));
    KESTR_FUZZ_SAME_TEXT(again.to_xml(), xml);
    KESTR_FUZZ_CHECK(again.node_count() == tree.node_count());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::ifstream in(KESTR_SOURCE_DIR "/tools/seeds/registrar.xml", std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    g_seed = text.str();
    if (g_seed.empty()) {
        std::fprintf(stderr, "fuzz_xmldbd_xml: no seed file\n");
        std::exit(2);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view xml(reinterpret_cast<const char*>(data), size);
    std::string error;

    xmldbd::ConfigTree loaded;
    if (loaded.load(xml, &error))
        survives_a_dump(loaded);
    else
        KESTR_FUZZ_CHECK(!error.empty());

    xmldbd::ConfigTree merged;
    KESTR_FUZZ_CHECK(merged.load(g_seed, &error));
    const size_t before = merged.node_count();
    if (merged.merge(xml, &error)) {
        KESTR_FUZZ_CHECK(merged.node_count() >= before);
        survives_a_dump(merged);
    }
    return 0;
}
