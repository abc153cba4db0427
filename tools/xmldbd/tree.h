// The configuration tree of the stand-in database daemon.
//
// Nodes are addressed by path text: "/a/b", and list members by a 1-based
// index after a colon, "/phyinf:2/uid"; a step without an index means member
// 1. Each node has a text value and children. The tree is kept as an XML
// document, which is also its file format: the root element stands for "/",
// child elements are nodes, repeated siblings of one name are the members of
// a list in document order, and element text is the value.
#pragma once

#include <pugixml.hpp>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace xmldbd {

// Limits that keep one request or file from exhausting the daemon.
constexpr size_t kMaxDepth = 64;        // steps in a path, levels in a file
constexpr unsigned kMaxIndex = 4096;    // highest list index a set may create
constexpr size_t kMaxNodes = 1u << 18;  // nodes in the whole tree

class ConfigTree {
  public:
    ConfigTree();

    // The node's value; "" for a node that does not exist, nothing for a
    // path that is not well formed.
    std::optional<std::string> get(std::string_view path) const;
    // Creates missing nodes and list members up to the index named. False for
    // a malformed path or when the tree would grow past its limits.
    bool set(std::string_view path, std::string_view value);
    // Removes a node with its subtree ("/" empties the tree). Removing a node
    // that does not exist succeeds; false only for a malformed path.
    bool del(std::string_view path);

    // Replaces the whole tree with an XML text; on failure the tree is
    // unchanged and `error` says why.
    bool load(std::string_view xml, std::string* error);
    // Merges an XML text into the tree: the n-th element of a name is list
    // member n; a leaf element, or one with text, sets that member's value.
    bool merge(std::string_view xml, std::string* error);
    // The tree as an indented XML document.
    std::string to_xml() const;

    size_t node_count() const { return nodes_; }

  private:
    pugi::xml_document doc_;
    pugi::xml_node root_;
    size_t nodes_ = 0;
};

}  // namespace xmldbd
