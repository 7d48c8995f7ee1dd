// Failing calls: the linker puts a counting layer under the calls that the code under test makes
// (-Wl,--wrap), and a test has the N-th call of each name fail, for every N.
#pragma once

#include <string>
#include <vector>

// The names of the calls that can be made to fail.
const std::vector<const char*>& fault_calls();

// Counts calls of `name` from here on, in all threads and child processes, and has the n-th fail.
void fault_arm(const char* name, long n);

// Counts calls of every name but those for memory, and kills the process that makes the n-th before
// it is made.
void fault_arm_kill(long n);

// The calls counted so far.
long fault_count();

// Stops counting. Returns whether a call was made to fail.
bool fault_disarm();

// Notes the calls of fsync, remove and rename until the end, a line each with the last part of the
// path, which for a rename is the new one: "fsync teststats.seq.new". One thread only.
void fault_trace_begin();
std::string fault_trace_end();
