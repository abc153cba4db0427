// The four roles of the system benchmark program; each prints its figures
// to standard output as "name value" lines and what each run did to
// standard error, and returns the program's exit status.
#pragma once

#include "bench/system_common.h"

namespace kbench {

// Runs of a real enrollee, one after the other, each timed (system_enrollee.cpp).
int enrollee(const Args& a);

// A third device's junk, many enrollees' M1s at once, and a burst of M1s
// with a Search after it (system_load.cpp).
int junk(const Args& a);
int m1s(const Args& a);
int burst(const Args& a);

}  // namespace kbench
