// Log entries on their way from the platform's reader into a record.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/unique_handle.h"
#include "platform/log_reader.h"
#include "timed_campaign/timed_campaign.h"

inline constexpr size_t ALOG_BUFFER_SIZE = 0x20000;
inline constexpr size_t ALOG_ENTRY_MAX_SIZE = 5120;  // the rest of a longer entry is cut off

// Written out as soon as it holds this much: one largest entry still fits then.
inline constexpr size_t ALOG_FLUSH_SIZE = ALOG_BUFFER_SIZE - ALOG_ENTRY_MAX_SIZE + 1;

struct alog_record {
    timed_campaign* campaign = nullptr;  // owns the record
    unique_malloc<uint8_t> buffer{};     // ALOG_BUFFER_SIZE bytes while a campaign runs
    size_t fill = 0;                     // bytes in it
    bool has_entries = false;            // some were written to the record
};

// All functions: the row's own thread. Failures are logged.

// Allocates the buffer, opens the reader on the main log buffer and writes the section's title into
// the record. Returns 0, or -EINVAL with neither buffer nor reader left.
int alog_log_start(alog_record* record, unique_logger_list* reader);

// Waits for one entry, or until the row's `stop` is raised, appends it to the buffer and writes
// that out when it is full. An entry that comes without the owner's consent is dropped, and what is
// in the buffer stays there meanwhile. Returns the
// bytes read; a positive error number when reading failed; 0 at the end of the log; -EINVAL when
// the record could not be written.
int alog_log_read(alog_record* record, unique_logger_list* reader);

// Closes the reader, writes out what is left and hands the record over; without the owner's consent
// both are deleted. Frees the buffer. Does nothing without a reader.
void alog_log_end(alog_record* record, unique_logger_list* reader);
