// The reporter from the inside.
//
// Two threads meet here: the static thread and, for indications, the messaging library's. The alarm
// runs in the static thread while that waits, never in a signal handler.
//
//  - The data lock guards what both touch: the status values, the text and the record. Under it the
//    record-file lock is taken. It is never held during a message, which may take two minutes, nor
//    during a wait, nor during the client's release.
//  - Only the static thread releases the client, holding nothing: the library lets a callback
//    that is under way finish first, and its calls fail at once. A callback that wants the end
//    (aost_imsa_retire) makes the static thread's wait end, whose deinit does the rest.
//  - A callback makes its calls with the client that it is handed. It may come before the static
//    thread reports anything.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "base/sync.h"
#include "collectors/static/imsa_service.h"
#include "framework/record/record.h"
#include "framework/row/collector_info.h"
#include "modem_client/modem_client.h"
#include "platform/kbr.h"

inline constexpr uint32_t AOST_INTERVAL_S = 432000;
inline constexpr int64_t AOST_NO_ALARM = -1;

struct aost_reporter {
    // Written by the static thread; null while there is no reporter.
    std::atomic<collector_info*> row{nullptr};

    // The client is up and indications are wanted. Whoever clears it ends the reporter.
    std::atomic<bool> registered{false};

    vexa_mutex data_lock{};
    record_handle* record GUARDED_BY(data_lock) = nullptr;
    bool has_record GUARDED_BY(data_lock) = false;  // the static record is out of the handle
    bool stored GUARDED_BY(data_lock) = false;      // the record holds data not yet dropped
    uint32_t subs_type GUARDED_BY(data_lock) = 0;
    uint32_t status[IMSA_STATUS_COUNT] GUARDED_BY(data_lock) = {};
    char status_text[64] GUARDED_BY(data_lock) = "";

    // The static thread's.
    modem_client client{};
    uint32_t interval_s = AOST_INTERVAL_S;
    uint64_t last_params_ms = 0;           // boot time
    int64_t alarm_due_ms = AOST_NO_ALARM;  // monotonic
};

extern aost_reporter g_aost;

// ---- Record (aost_record.cpp)

// Whether the row's `stop` or `terminate` is set.
bool aost_is_ending(const collector_info& row);

// Appends the text that stands in status_text, in a record that is opened first when nothing is
// stored; `heading` then comes in front of it. Returns whether it
// was written; logged.
bool aost_append_status_text(collector_info* row, const char* heading) REQUIRES(g_aost.data_lock);

// Writes status_text, or with drop_now hands the record over. Returns false when the reporter has
// to end; true as well when there was a reason to write nothing. Logged.
bool aost_imsa_write_service_status_change(bool drop_now) REQUIRES(g_aost.data_lock);

// ---- Client (aost_imsa.cpp)

// Asks for the reporter's end: withdraws `registered`, which ends the static thread's wait, and
// gives it a second. Only the first caller does more than log. It takes nothing away, so any thread
// may call it; what the reporter has is given back by aost_imsa_deinit, in the static thread alone.
void aost_imsa_retire();

// The indication callback. Thread: the library's.
void aost_imsa_resp_ind_cb(kbr_client* client, uint32_t msg_id, void* buf, uint32_t len,
                           void* cb_data);

// ---- Configuration (aost_config.cpp); the static thread's

// Loads `interval_s` from the reporter's configuration files. Returns 0 or the failure, logged.
int aost_imsa_init_params(collector_info* row);

// Asks the download agent for one. A failure is logged.
void aost_request_config(const collector_info& row);

// Load it, the second only once what was loaded last is five days of boot time old. A failure,
// which is logged, leaves what there is.
void aost_load_params(collector_info* row);
void aost_reload_params(collector_info* row);

// ---- Alarm and waiting (aost_alarm.cpp); the static thread's but for the wake-up

// Has SIGALRM, whoever sends it, make the alarm due. The handler stays for good. Returns false,
// logged, when that is not possible.
bool aost_alarm_install();

// Makes the alarm due in so many seconds; 0: never, as alarm(2) has it.
void aost_alarm_arm(uint32_t seconds);

// What is done when the alarm is due: the record is handed over.
void aost_imsa_sig_alarm_hdlr(int signo);

// Waits for so long, or until a wake-up (negative: no limit), and runs the alarm when it is due.
// Returns false once the row's `stop` is raised.
bool aost_wait_once(collector_info* row, int64_t limit_ms);

// Sleeps for so long, running the alarm when it is due. Returns false once `stop` is raised.
bool aost_sleep_ms(collector_info* row, int64_t ms);

// Ends the static thread's wait. Any thread; async-signal-safe.
void aost_wake();
