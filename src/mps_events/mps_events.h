// The events of the modem statistics collector, and how its thread sleeps until one is raised. A
// leaf of its own, so that the campaign manager raises events without knowing the collector.
#pragma once

#include <cstdint>

#include "framework/time/stop.h"

enum mps_event : uint32_t {
    MPS_EVENT_BUFFER_FULL = 2,     // the modem's buffer is full
    MPS_EVENT_FETCH_TIMER = 4,     // served, raised by nobody
    MPS_EVENT_KBR_READY = 8,       // connected to the modem's service
    MPS_EVENT_MODEM_RESTART = 16,  // served, raised by nobody
    MPS_EVENT_SEND_COMPLETE = 32,  // the modem has written its data files
    MPS_EVENT_TIMER = 64,          // one of the collector's timers
    MPS_EVENT_CAMPAIGN_START = 256,
    MPS_EVENT_CAMPAIGN_STOP = 512,
};

// Raise an event from another thread: sets its bit, counts the signal and wakes the collector.
// Logged. Safe at any time of the process's life, also when no collector is there. The caller may
// hold its own locks; none of this leaf's is held on return.
void mps_campaign_event(uint32_t event);
void mps_set_event(uint32_t event);

// Counts a signal and wakes the collector without an event. As above, not logged.
void mps_signal_collector();

// Clears bits of the mask. Logged. Thread: the collector's.
void mps_clear_event(uint32_t event);

// The mask as it stands. Any thread.
uint32_t mps_events();

// Sleeps until a signal was raised since the last return, and not at all when that is so already;
// then forgets the signals. Ends when `stop` is raised, too. Logged. Thread: the collector's.
void mps_wait_for_signal(const stop_flag& stop);

// Signals raised since the collector last went to sleep. Any thread.
uint32_t mps_signal_count();
