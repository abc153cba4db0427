// What this device says about itself in M1 and M2: its identity texts and
// the attributes both messages carry as constants.
#pragma once

#include "daemon/kestrd_band.h"
#include "wsc/wsc.h"

namespace kestr::fill {

// The device's identity texts, in the rooms both messages give them.
void identity(wsc_configuration_t* c);

// The attributes both messages carry as constants, and RF Bands for `band`.
void constants(wsc_configuration_t* c, Band band);

}  // namespace kestr::fill
