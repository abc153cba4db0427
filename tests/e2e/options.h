// Command lines of the end-to-end test programs: "--name value" pairs and
// bare flags.
#pragma once

#include <cstdlib>
#include <map>
#include <string>
#include <variant>
#include <vector>

namespace kestr::test {

// Where an option's value goes: a number, a text, a list of texts (the
// option may be given again and again), or a flag that takes no value.
using Option = std::variant<int*, std::string*, std::vector<std::string>*, bool*>;
using OptionTable = std::map<std::string, Option>;

inline void add_options(OptionTable&) {}
template <typename T, typename... Rest>
void add_options(OptionTable& table, const char* name, T* where, Rest... rest) {
    table[name] = where;
    add_options(table, rest...);
}

// Reads "name, where" pairs of options; false on an unknown option or one
// without its value.
template <typename... Pairs>
bool parse_options(int argc, char** argv, Pairs... pairs) {
    OptionTable table;
    add_options(table, pairs...);
    for (int i = 1; i < argc; ++i) {
        const auto it = table.find(argv[i]);
        if (it == table.end())
            return false;
        if (auto* flag = std::get_if<bool*>(&it->second)) {
            **flag = true;
            continue;
        }
        if (++i >= argc)
            return false;
        if (auto* number = std::get_if<int*>(&it->second))
            **number = std::atoi(argv[i]);
        else if (auto* text = std::get_if<std::string*>(&it->second))
            **text = argv[i];
        else
            std::get<std::vector<std::string>*>(it->second)->push_back(argv[i]);
    }
    return true;
}

}  // namespace kestr::test
