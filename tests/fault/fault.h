// Failing calls: the linker puts a counting layer under the calls that the code under test makes
// (-Wl,--wrap), and a test has the N-th of them fail, for every N.
#pragma once

#include <string>

// Counts calls from here on and has the n-th fail; 0: none. All threads.
void fault_arm(long n);

// Stops counting. Returns how many calls there were.
long fault_disarm();

// The call that was made to fail since the last fault_arm, for example "fsync"; empty: none.
std::string fault_failed();
