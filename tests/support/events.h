// Waiting in tests: for a named event, with a deadline, and never by a sleep that hopes.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <vector>

// More than any event in a test should take, on a loaded machine and under a sanitizer.
inline constexpr std::chrono::milliseconds EVENT_LIMIT{20000};

// Waits until `condition` holds, looking afresh at every change inside one of the directories
// `watched` (which must exist) or of a file in them. Returns false when `limit` passes first.
bool wait_for_change(const std::vector<std::filesystem::path>& watched,
                     const std::function<bool()>& condition,
                     std::chrono::milliseconds limit = EVENT_LIMIT);

// Waits until `path` exists; its directory must.
bool wait_for_file(const std::filesystem::path& path,
                   std::chrono::milliseconds limit = EVENT_LIMIT);
