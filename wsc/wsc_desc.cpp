// Names of the WSC attributes for diagnostic output, in the order and the
// spelling of the attribute table.
#include <string_view>

#include "wsc/wsc.h"
#include "wsc/wsc_attributes.h"

namespace {

constexpr std::array<wsc_attr_desc_t, kWscAttrDescRows> name_rows() {
    std::array<wsc_attr_desc_t, kWscAttrDescRows> rows{};
    for (size_t i = 0; i < kestr::wsc::kAttributeCount; ++i) {
        const kestr::wsc::Attribute& a = kestr::wsc::kAttributes[i];
        const std::string_view name(a.name);
        for (size_t j = 0; j < name.size() && j + 1 < sizeof rows[i].desc; ++j)
            rows[i].desc[j] = name[j];
        rows[i].id = a.id;
        rows[i].len = a.nominal_len;
    }
    rows[kestr::wsc::kAttributeCount].id = -1;  // the end mark
    return rows;
}

}  // namespace

const std::array<wsc_attr_desc_t, kWscAttrDescRows> wsc_attr_desc = name_rows();

char* get_desc_by_id(int id) {
    static const char kNone[] = "";
    // The end mark's id is never a lookup result, also for id -1.
    for (size_t i = 0; i < kestr::wsc::kAttributeCount; ++i) {
        if (wsc_attr_desc[i].id == id)
            return const_cast<char*>(wsc_attr_desc[i].desc);
    }
    return const_cast<char*>(kNone);
}
