// What a phone holds, as text that is the same for two runs that did the same.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The log since the phone began, thread by thread, and the files under data/ with names, modes and
// contents (uploads as their reader shows them), and what the modem was told. Throws
// std::exception.
//
// `modem_lines` are the modem's own, `property_writes` lines that transcript_property_write made.
std::string transcript_of(const std::string& dir, const std::vector<std::string>& modem_lines,
                          const std::vector<std::string>& property_writes);

// A line about property `name` having been set, at this time of the wall clock.
std::string transcript_property_write(const std::string& dir, const std::string& name,
                                      int64_t real_ns);
