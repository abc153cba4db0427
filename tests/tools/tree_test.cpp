#include "tools/xmldbd/tree.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using xmldbd::ConfigTree;

TEST(ConfigTree, PathGrammar) {
    struct Case {
        const char* path;
        bool valid;
    } cases[] = {
        {"/a", true},     {"/a/b:2/c", true}, {"/_x-1.y", true},
        {"/", true},      {"/l:4096", true},  {"", false},
        {"a/b", false},   {"//a", false},     {"/a/", false},
        {"/a//b", false}, {"/a:0", false},    {"/a:4097", false},
        {"/a:", false},   {"/a:1x", false},   {"/a:1:2", false},
        {"/1a", false},   {"/a&b", false},    {"/a b", false},
        {"/a:-1", false}, {"/:1", false},     {"/a:99999999999", false},
    };
    for (const auto& c : cases) {
        ConfigTree tree;
        EXPECT_EQ(tree.set(c.path, "v"), c.valid) << c.path;
        EXPECT_EQ(tree.get(c.path).has_value(), c.valid) << c.path;
        if (c.valid) {
            EXPECT_EQ(*tree.get(c.path), "v") << c.path;
        }
        EXPECT_EQ(tree.del(c.path), c.valid) << c.path;
    }
    std::string deep;
    for (size_t i = 0; i < xmldbd::kMaxDepth; ++i)
        deep += "/d";
    ConfigTree tree;
    EXPECT_TRUE(tree.set(deep, "bottom"));
    EXPECT_FALSE(tree.set(deep + "/d", "too deep"));
    EXPECT_EQ(tree.node_count(), xmldbd::kMaxDepth);
}

TEST(ConfigTree, ListsAndDeletion) {
    ConfigTree tree;
    ASSERT_TRUE(tree.set("/l:3/uid", "third"));
    EXPECT_EQ(tree.node_count(), 4u);  // members 1 to 3, and one uid
    EXPECT_EQ(tree.get("/l:3/uid"), "third");
    EXPECT_EQ(tree.get("/l:2/uid"), "");
    EXPECT_EQ(tree.get("/l:4/uid"), "");
    ASSERT_TRUE(tree.set("/l/uid", "first"));  // no index: member 1
    EXPECT_EQ(tree.get("/l:1/uid"), "first");
    ASSERT_TRUE(tree.set("/other", "x"));
    ASSERT_TRUE(tree.set("/l:4", "fourth"));
    // Members stay together in order even with another node after them.
    EXPECT_EQ(tree.to_xml().find("<l>fourth</l>") < tree.to_xml().find("<other>"), true);

    EXPECT_TRUE(tree.del("/l:2"));  // later members move up
    EXPECT_EQ(tree.get("/l:2/uid"), "third");
    EXPECT_EQ(tree.get("/l:3"), "fourth");
    EXPECT_TRUE(tree.del("/l:9"));
    EXPECT_TRUE(tree.del("/l"));
    EXPECT_EQ(tree.get("/l/uid"), "third");
    EXPECT_EQ(tree.node_count(), 4u);  // l(third) with uid, l(fourth), other
    EXPECT_TRUE(tree.del("/"));
    EXPECT_EQ(tree.node_count(), 0u);
    EXPECT_EQ(tree.get("/other"), "");
}

TEST(ConfigTree, GrowthIsBounded) {
    ConfigTree tree;
    ASSERT_TRUE(tree.set("/x", "1"));
    // 64 steps of 4096 members each would fill the tree: with one node in it
    // already, the request is refused before anything is made.
    std::string huge;
    for (size_t i = 0; i < xmldbd::kMaxDepth; ++i)
        huge += "/a:4096";
    EXPECT_FALSE(tree.set(huge, "v"));
    EXPECT_EQ(tree.node_count(), 1u);
    EXPECT_EQ(tree.to_xml().find("<a"), std::string::npos);

    for (int i = 1; i <= 63; ++i) {
        ASSERT_TRUE(tree.set("/a:" + std::to_string(i) + "/b:4096", "v"));
    }
    EXPECT_EQ(tree.node_count(), 1u + 63u * 4097u);
    EXPECT_FALSE(tree.set("/a:64/b:4096", "v"));
    EXPECT_TRUE(tree.set("/a:64/b:4000", "v"));
    EXPECT_TRUE(tree.del("/a"));
    EXPECT_EQ(tree.node_count(), 1u + 62u * 4097u + 4001u);
    EXPECT_EQ(tree.get("/a:63/b:4096"), "");
    EXPECT_EQ(tree.get("/a:62/b:4096"), "v");
}

TEST(ConfigTree, XmlRoundTripAndMerge) {
    ConfigTree tree;
    const std::pair<const char*, const char*> values[] = {
        {"/w/entry:2/ssid", "a <b> & \"c\" 'd'"},
        {"/w/entry:2/key", "  blanks around  "},
        {"/w/entry:1/key", " "},
        {"/w/entry:1/ssid",
         "Gr\xc3\xbc\xc3\x9f"
         "e"},
        {"/m", "value before children"},
        {"/m/c", "child"},
        {"/", "root text"},
        {"/e", ""},
        // XML readers turn a carriage return into a line feed; an SSID may
        // hold either.
        {"/w/entry:3/ssid", "cr\rin the middle\r\n"},
        // Blanks next to child elements are layout to an XML reader.
        {"/n", "  "},
        {"/n/c", "child"},
    };
    for (const auto& [path, value] : values)
        ASSERT_TRUE(tree.set(path, value)) << path;
    const std::string xml = tree.to_xml();

    ConfigTree copy;
    std::string error;
    ASSERT_TRUE(copy.load(xml, &error)) << error;
    for (const auto& [path, value] : values)
        EXPECT_EQ(copy.get(path), value) << path;
    EXPECT_EQ(copy.node_count(), tree.node_count());
    EXPECT_EQ(copy.to_xml(), xml);

    ASSERT_TRUE(
        copy.merge("<x><w><entry><key>new</key><extra>1</extra></entry>"
                   "<entry><ssid/></entry><entry><ssid>third</ssid></entry></w>"
                   "<m><c>changed</c></m></x>",
                   &error))
        << error;
    EXPECT_EQ(copy.get("/w/entry:1/key"), "new");
    EXPECT_EQ(copy.get("/w/entry:1/ssid"),
              "Gr\xc3\xbc\xc3\x9f"
              "e");  // not in the file: kept
    EXPECT_EQ(copy.get("/w/entry:1/extra"), "1");
    EXPECT_EQ(copy.get("/w/entry:2/ssid"), "");  // an empty leaf is a value
    EXPECT_EQ(copy.get("/w/entry:3/ssid"), "third");
    EXPECT_EQ(copy.get("/m"), "value before children");  // no text of its own in the file
    EXPECT_EQ(copy.get("/m/c"), "changed");
}

// Whatever a merge accepts comes back unchanged from a dump and a read.
TEST(ConfigTree, MergedValuesSurviveADump) {
    const struct {
        const char* xml;
        const char* path;
        const char* value;
    } cases[] = {
        {"<x><m>  </m></x>", "/m", "  "},  // blanks beside the child /m/c
        {"<x><s>a&#13;b</s></x>", "/s", "a\rb"},
        {"<x><s>a\r\nb</s></x>", "/s", "a\r\nb"},
    };
    for (const auto& c : cases) {
        ConfigTree tree;
        ASSERT_TRUE(tree.set("/m/c", "child"));
        std::string error;
        ASSERT_TRUE(tree.merge(c.xml, &error)) << error;
        EXPECT_EQ(tree.get(c.path), c.value) << c.xml;
        ConfigTree reread;
        ASSERT_TRUE(reread.load(tree.to_xml(), &error)) << error;
        EXPECT_EQ(reread.get(c.path), c.value) << c.xml;
        EXPECT_EQ(reread.to_xml(), tree.to_xml()) << c.xml;
    }
}

TEST(ConfigTree, BadFilesChangeNothing) {
    std::string too_many = "<db>";
    for (size_t i = 0; i <= xmldbd::kMaxNodes; ++i)
        too_many += "<n/>";
    too_many += "</db>";
    const struct {
        std::string xml;
        const char* error;
    } cases[] = {
        {"<db><a></db>", "at offset"},
        {"", "No document element"},
        {"just text", "No document element"},
        {"<db><a>1</a></db><second/>", "more than one root element"},
        {too_many, "more nodes"},
    };
    for (const auto& c : cases) {
        ConfigTree tree;
        ASSERT_TRUE(tree.set("/keep", "me"));
        const std::string before = tree.to_xml();
        std::string error;
        EXPECT_FALSE(tree.load(c.xml, &error));
        EXPECT_NE(error.find(c.error), std::string::npos) << error;
        EXPECT_FALSE(tree.merge(c.xml, &error));
        EXPECT_EQ(tree.to_xml(), before);
    }
    // Entities are never resolved: a seed cannot pull in another file.
    ConfigTree entity;
    std::string why;
    ASSERT_TRUE(entity.load(
        "<!DOCTYPE db [<!ENTITY e SYSTEM \"/etc/hostname\">]><db><a>&e;</a></db>", &why))
        << why;
    EXPECT_EQ(entity.get("/a"), "&e;");

    std::string closed_deep;
    for (size_t i = 0; i <= xmldbd::kMaxDepth; ++i)
        closed_deep += "<d>";
    for (size_t i = 0; i <= xmldbd::kMaxDepth; ++i)
        closed_deep += "</d>";
    ConfigTree tree;
    std::string error;
    EXPECT_FALSE(tree.load("<db>" + closed_deep + "</db>", &error));
    EXPECT_NE(error.find("nested deeper"), std::string::npos) << error;
}

}  // namespace
