// What a phone holds, as text that is the same for two runs that did the same.
#pragma once

#include <string>
#include <vector>

// The log since the phone began, thread by thread, and the files under data/ with names, modes and
// contents (uploads as their reader shows them), and what the modem was told. Throws
// std::exception.
std::string transcript_of(const std::string& dir, const std::vector<std::string>* modem_lines);
