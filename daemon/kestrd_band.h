// A frequency band as a value, and each form it takes in the system.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

#include "protocol/19051_protocol.h"
#include "wsc/wsc.h"

namespace kestr {

class Band {
  public:
    static constexpr Band g2p4() { return Band(false); }
    static constexpr Band g5() { return Band(true); }
    // The 1905.1 code of a Search, a Response and a pending request: 0 is
    // 2.4 GHz, any other value 5 GHz.
    static constexpr Band from_ieee1905(int code) { return Band(code != 0); }
    // An RF Bands value: 1 is 2.4 GHz, any other value 5 GHz.
    static constexpr Band from_rf_bands(int rf_bands) { return Band(rf_bands != RFBands_2P4G); }

    constexpr uint8_t ieee1905() const {
        return five_ ? kIeee1905FreqBand5G : kIeee1905FreqBand2P4G;
    }
    // RF Bands of M1 and M2.
    constexpr RFBands_e rf_bands() const { return five_ ? RFBands_5G : RFBands_2P4G; }
    // The band argument of the device port.
    constexpr int is5G() const { return five_ ? 1 : 0; }
    constexpr std::string_view command_word() const { return five_ ? "apclone_5G" : "apclone_24G"; }
    constexpr const char* name() const { return five_ ? "5G" : "2.4G"; }

    constexpr bool operator==(Band o) const { return five_ == o.five_; }
    constexpr bool operator!=(Band o) const { return five_ != o.five_; }

  private:
    constexpr explicit Band(bool five) : five_(five) {}
    bool five_;
};

// The band an enrollee command word selects: a word that begins with
// "apclone_24G" or "apclone_5G" (so "apclone_5Gxyz" is a 5 GHz run).
inline std::optional<Band> band_of_command(const char* word) {
    for (const Band band : {Band::g2p4(), Band::g5()}) {
        const std::string_view w = band.command_word();
        if (std::strncmp(word, w.data(), w.size()) == 0)
            return band;
    }
    return std::nullopt;
}

// The band an M1 asks for: RF Bands 2 is 5 GHz; 1, any other value or none
// is 2.4 GHz.
constexpr Band band_asked_by_m1(const wsc_configuration_uint8_t& rf_bands) {
    return rf_bands.val == RFBands_5G ? Band::g5() : Band::g2p4();
}

// The band the settings of an M2 belong to: RF Bands 1 is 2.4 GHz; any other
// value or none is 5 GHz. The M2 decides, whatever the M1 asked for.
constexpr Band band_of_m2(const wsc_configuration_uint8_t& rf_bands) {
    return Band::from_rf_bands(rf_bands.val);
}

}  // namespace kestr
