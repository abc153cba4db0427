#include "tools/xmldbd/tree.h"

#include <cstring>
#include <map>
#include <vector>

namespace xmldbd {
namespace {

constexpr const char* kDefaultRootName = "xmldb";

// Whitespace-only text is kept when it is an element's only content and
// dropped between elements, where it is the layout of the file. Line ends
// are not normalised: a value's carriage returns are its own (an SSID may
// hold any byte), and they are written out as they are.
constexpr unsigned kParseOptions =
    (pugi::parse_default | pugi::parse_ws_pcdata_single) & ~pugi::parse_eol;

struct Step {
    std::string name;
    unsigned index;  // 1-based list member
};

// Node names must also be XML element names, so that every tree can be
// written out and read back: a letter or '_', then letters, digits, '_', '-'
// or '.'.
bool valid_name(std::string_view name) {
    if (name.empty())
        return false;
    auto alpha = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    auto digit = [](char c) { return c >= '0' && c <= '9'; };
    if (!alpha(name[0]) && name[0] != '_')
        return false;
    for (char c : name) {
        if (!alpha(c) && !digit(c) && c != '_' && c != '-' && c != '.')
            return false;
    }
    return true;
}

// "name" or "name:N" with N from 1 to kMaxIndex.
bool parse_step(std::string_view text, Step& step) {
    const size_t colon = text.find(':');
    std::string_view name = text.substr(0, colon);
    if (!valid_name(name))
        return false;
    step.name = std::string(name);
    step.index = 1;
    if (colon == std::string_view::npos)
        return true;
    std::string_view digits = text.substr(colon + 1);
    if (digits.empty() || digits.size() > 5)
        return false;
    unsigned value = 0;
    for (char c : digits) {
        if (c < '0' || c > '9')
            return false;
        value = value * 10 + static_cast<unsigned>(c - '0');
    }
    if (value < 1 || value > kMaxIndex)
        return false;
    step.index = value;
    return true;
}

// "/" is the root; otherwise "/step/step...", no empty steps.
bool parse_path(std::string_view path, std::vector<Step>& steps) {
    steps.clear();
    if (path.empty() || path[0] != '/')
        return false;
    if (path == "/")
        return true;
    path.remove_prefix(1);
    while (true) {
        const size_t slash = path.find('/');
        Step step;
        if (!parse_step(path.substr(0, slash), step))
            return false;
        steps.push_back(std::move(step));
        if (steps.size() > kMaxDepth)
            return false;
        if (slash == std::string_view::npos)
            return true;
        path.remove_prefix(slash + 1);
    }
}

size_t count_members(pugi::xml_node parent, const char* name) {
    size_t n = 0;
    for (pugi::xml_node c = parent.child(name); c; c = c.next_sibling(name))
        ++n;
    return n;
}

// Member `index` of the list `name` under `parent`, or a null node.
pugi::xml_node find_member(pugi::xml_node parent, const char* name, unsigned index) {
    pugi::xml_node c = parent.child(name);
    for (unsigned i = 1; c && i < index; ++i)
        c = c.next_sibling(name);
    return c;
}

// Member `index` of the list `name`, made together with any missing members
// before it; new members go right after the existing ones. Returns the member
// and adds the number of nodes made to `created`.
pugi::xml_node make_member(pugi::xml_node parent, const char* name, unsigned index,
                           size_t& created) {
    pugi::xml_node last;
    unsigned have = 0;
    for (pugi::xml_node c = parent.child(name); c && have < index; c = c.next_sibling(name)) {
        last = c;
        ++have;
    }
    for (; have < index; ++have) {
        last = last ? parent.insert_child_after(pugi::node_element, last)
                    : parent.append_child(pugi::node_element);
        last.set_name(name);
        ++created;
    }
    return last;
}

bool is_text(pugi::xml_node n) {
    return n.type() == pugi::node_pcdata || n.type() == pugi::node_cdata;
}

std::string value_of(pugi::xml_node node) {
    std::string value;
    for (pugi::xml_node c = node.first_child(); c; c = c.next_sibling()) {
        if (is_text(c))
            value += c.value();
    }
    return value;
}

bool has_text(pugi::xml_node node) {
    for (pugi::xml_node c = node.first_child(); c; c = c.next_sibling()) {
        if (is_text(c))
            return true;
    }
    return false;
}

bool has_elements(pugi::xml_node node) {
    return static_cast<bool>(
        node.find_child([](pugi::xml_node c) { return c.type() == pugi::node_element; }));
}

void set_value(pugi::xml_node node, const std::string& value) {
    for (pugi::xml_node c = node.first_child(); c;) {
        pugi::xml_node next = c.next_sibling();
        if (is_text(c))
            node.remove_child(c);
        c = next;
    }
    if (value.empty())
        return;
    // A value of blanks is written as CDATA: next to child elements, plain
    // blanks would be taken for layout when the dump is read back. The value
    // goes before the children so a dump reads value first.
    const bool blanks = value.find_first_not_of(" \t\n\r") == std::string::npos;
    node.prepend_child(blanks ? pugi::node_cdata : pugi::node_pcdata).set_value(value.c_str());
}

// Elements below `node`; false when deeper than `depth_left` allows.
bool measure(pugi::xml_node node, size_t depth_left, size_t& elements) {
    for (pugi::xml_node c = node.first_child(); c; c = c.next_sibling()) {
        if (c.type() != pugi::node_element)
            continue;
        if (depth_left == 0)
            return false;
        ++elements;
        if (!measure(c, depth_left - 1, elements))
            return false;
    }
    return true;
}

// Merges the element children of `src` into `dst`; returns the nodes created.
size_t merge_children(pugi::xml_node dst, pugi::xml_node src) {
    size_t created = 0;
    std::map<std::string, unsigned> seen;
    for (pugi::xml_node c = src.first_child(); c; c = c.next_sibling()) {
        if (c.type() != pugi::node_element)
            continue;
        // The k-th element of a name in the file is member k; earlier ones
        // were merged first, so at most this one member is new.
        const unsigned k = ++seen[c.name()];
        pugi::xml_node member = make_member(dst, c.name(), k, created);
        if (has_text(c) || !has_elements(c))
            set_value(member, value_of(c));
        created += merge_children(member, c);
    }
    return created;
}

struct StringWriter : pugi::xml_writer {
    std::string text;
    void write(const void* data, size_t size) override {
        text.append(static_cast<const char*>(data), size);
    }
};

}  // namespace

ConfigTree::ConfigTree() {
    root_ = doc_.append_child(kDefaultRootName);
}

std::optional<std::string> ConfigTree::get(std::string_view path) const {
    std::vector<Step> steps;
    if (!parse_path(path, steps))
        return std::nullopt;
    pugi::xml_node node = root_;
    for (const Step& s : steps) {
        node = find_member(node, s.name.c_str(), s.index);
        if (!node)
            return std::string();
    }
    return value_of(node);
}

bool ConfigTree::set(std::string_view path, std::string_view value) {
    std::vector<Step> steps;
    if (!parse_path(path, steps))
        return false;

    // Count what the path would create before creating any of it, so a
    // request over the limit changes nothing.
    size_t needed = 0;
    pugi::xml_node node = root_;
    for (const Step& s : steps) {
        if (node) {
            const size_t have = count_members(node, s.name.c_str());
            if (have < s.index)
                needed += s.index - have;
            node = find_member(node, s.name.c_str(), s.index);
        } else {
            needed += s.index;
        }
    }
    if (needed > kMaxNodes - nodes_)
        return false;

    node = root_;
    for (const Step& s : steps)
        node = make_member(node, s.name.c_str(), s.index, nodes_);
    set_value(node, std::string(value));
    return true;
}

bool ConfigTree::del(std::string_view path) {
    std::vector<Step> steps;
    if (!parse_path(path, steps))
        return false;
    if (steps.empty()) {
        root_.remove_children();
        nodes_ = 0;
        return true;
    }
    pugi::xml_node node = root_;
    for (const Step& s : steps) {
        node = find_member(node, s.name.c_str(), s.index);
        if (!node)
            return true;
    }
    size_t removed = 1;
    measure(node, kMaxDepth, removed);
    node.parent().remove_child(node);
    nodes_ -= removed;
    return true;
}

namespace {

// Parses and checks an XML text; its root element, or a null node with `error`.
pugi::xml_node parse_checked(pugi::xml_document& doc, std::string_view xml, size_t room,
                             std::string* error) {
    const pugi::xml_parse_result r = doc.load_buffer(xml.data(), xml.size(), kParseOptions);
    if (!r) {
        *error = std::string(r.description()) + " at offset " + std::to_string(r.offset);
        return {};
    }
    pugi::xml_node root = doc.document_element();
    if (!root) {
        *error = "no root element";
        return {};
    }
    size_t roots = 0;
    for (pugi::xml_node n = doc.first_child(); n; n = n.next_sibling()) {
        if (n.type() == pugi::node_element)
            ++roots;
    }
    if (roots > 1) {
        *error = "more than one root element";
        return {};
    }
    size_t elements = 0;
    if (!measure(root, kMaxDepth, elements)) {
        *error = "nested deeper than " + std::to_string(kMaxDepth) + " levels";
        return {};
    }
    if (elements > room) {
        *error = "more nodes than the database holds (" + std::to_string(kMaxNodes) + ")";
        return {};
    }
    return root;
}

}  // namespace

bool ConfigTree::load(std::string_view xml, std::string* error) {
    pugi::xml_document src;
    pugi::xml_node root = parse_checked(src, xml, kMaxNodes, error);
    if (!root)
        return false;
    doc_.reset();
    root_ = doc_.append_child(root.name());
    nodes_ = 0;
    if (has_text(root))
        set_value(root_, value_of(root));
    nodes_ = merge_children(root_, root);
    return true;
}

bool ConfigTree::merge(std::string_view xml, std::string* error) {
    pugi::xml_document src;
    pugi::xml_node root = parse_checked(src, xml, kMaxNodes - nodes_, error);
    if (!root)
        return false;
    if (has_text(root))
        set_value(root_, value_of(root));
    nodes_ += merge_children(root_, root);
    return true;
}

std::string ConfigTree::to_xml() const {
    StringWriter w;
    doc_.save(w, "  ", pugi::format_indent, pugi::encoding_utf8);
    return w.text;
}

}  // namespace xmldbd
