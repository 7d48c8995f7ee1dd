// The scripted platform, for unit tests: a log that can be asserted, properties in memory and
// clocks that are moved by hand. A test binary starts each test with a fresh one. All functions:
// any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Empties the log, the script of the log readers and the properties and puts the clocks back to
// their first readings, in auto mode. No thread may be waiting with a time-out.
void platform_test_reset();

// Log ---------------------------------------------------------------------------------------------

struct platform_test_log_entry {
    int priority = 0;  // ANDROID_LOG_...
    std::string tag;
    std::string text;  // as logged, its newline included

    bool operator==(const platform_test_log_entry&) const = default;
};

// What was logged since the last clear, oldest first.
std::vector<platform_test_log_entry> platform_test_log();

// Number of entries whose text is exactly `text`.
size_t platform_test_log_count(std::string_view text);

// Waits until an entry whose text is exactly `text` has been logged since the last clear. Returns
// false when limit_ms of real time pass without it.
bool platform_test_wait_log(std::string_view text, int64_t limit_ms);

void platform_test_clear_log();

// Log reading ------------------------------------------------------------------------------------

// What the log readers of all buffers hand over, one read each, in this order. At the end of the
// script a read blocks, or returns -EAGAIN.
void platform_test_script_log_entry(std::string entry);  // in the platform's binary form
void platform_test_script_log_failure(int result);       // 0, with errno ENODATA, or negative

// What the daemon itself logs reaches a reader that is blocked, and no other; the log calls this.
void platform_test_wake_log_readers(int priority, const char* tag, const char* text);

// The next open fails with this errno.
void platform_test_fail_log_open(int error);

// Readers that were opened and not yet freed.
size_t platform_test_log_readers();

// Waits until a reader has come to the end of the script and blocks. Returns false when limit_ms of
// real time pass before.
bool platform_test_wait_log_reader(int64_t limit_ms);

// For platform_test_reset.
void platform_test_reset_log_script();

// Diagnostics ------------------------------------------------------------------------------------

// The next call of that function ("init", "register", "config", "stream", "support", "release")
// returns this.
void platform_test_script_diag(std::string_view function, int result);

// What diag_get_dci_support_list_proc stores.
void platform_test_set_diag_support_list(uint16_t list);

// Hands a packet to the registered callback, in the calling thread, and returns when that has
// returned. Returns false when there is none. A release of the client waits meanwhile.
bool platform_test_diag_packet(std::string packet);

// The calls since the last look, each with its arguments: "config 5 1 45163 7".
std::vector<std::string> platform_test_diag_calls();

// For platform_test_reset.
void platform_test_reset_diag();

// Properties --------------------------------------------------------------------------------------

// The value of a property; nothing when it was never set.
std::optional<std::string> platform_test_property(std::string_view name);
void platform_test_set_property(std::string_view name, std::string_view value);

// Clocks ------------------------------------------------------------------------------------------

// First readings: three numbers that no code could take for one another.
inline constexpr int64_t PLATFORM_TEST_REAL_MS = 1700000000000;  // 2023-11-14T22:13:20Z
inline constexpr int64_t PLATFORM_TEST_BOOT_MS = 5000000;
inline constexpr int64_t PLATFORM_TEST_MONO_MS = 4000000;

void platform_test_set_real_ms(int64_t real_ms);  // a jump; ends the waits for such a time only
void platform_test_set_boot_ms(int64_t boot_ms);  // as after a suspend; no wait notices

// Lets time pass on all three clocks and ends the waits whose time has then come.
void platform_test_advance_ms(int64_t ms);

enum class platform_test_clock {
    // A wait with a time-out and nothing ready moves the clocks to its deadline and ends at once.
    AUTO,
    // It lasts until another thread moves the clocks past its deadline or a descriptor is ready.
    MANUAL,
};
void platform_test_set_clock(platform_test_clock mode);

// Waits until at least `threads` threads are parked: blocked in a wait whose time has not come and
// none of whose descriptors is ready. Returns false when limit_ms of real time pass before.
bool platform_test_wait_parked(size_t threads, int64_t limit_ms);

// Runs `what` while every thread that waits stays where it is: all that `what` does to descriptors
// and files comes to such a thread at once. It must not call the scripted platform.
void platform_test_at_once(const std::function<void()>& what);
