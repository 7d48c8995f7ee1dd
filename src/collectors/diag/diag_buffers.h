// The two buffers between the diagnostics library's thread (the producer), which fills one while
// the collector's thread (the consumer) writes the other to the record.
//
// One lock guards both. The producer holds it for the copy of a packet, the consumer only to take a
// full buffer and to give it back: a full buffer is the consumer's alone meanwhile. The producer
// waits, without time-out, while its next buffer is still full. Shutting the pair ends that wait.
#pragma once

#include <cstddef>
#include <cstdint>

#include "timed_campaign/timed_campaign.h"

inline constexpr size_t DIAG_BUFFER_SIZE = 0x23000;

inline constexpr int DIAG_TYPE_LOG = 16;
inline constexpr int DIAG_TYPE_PREFIXED = 96;  // stored with DIAG_PREFIX in front
inline constexpr uint8_t DIAG_PREFIX = 0x60;

// Creates the pair, empty, and opens it to the producer. Returns 0 or -ENOMEM. Thread: the row's.
int diag_dci_init_buffers();

// Turns the producer away: one that waits returns at once, and its packet and all later ones are
// dropped. To be called before the library is told to end. Thread: the row's.
void diag_dci_shut_buffers();

// Shuts the pair and frees it, with what is left in it. Thread: the row's.
void diag_dci_release_buffers();

// Appends a packet of `length` bytes to the producer's buffer; waits while that is still full. A
// packet that would fill the buffer to its end or beyond is dropped and the buffer handed over.
// Thread: the library's.
void diag_dci_copy_to_buffer(int type, const uint8_t* data, int length);

// Writes full buffers to the campaign's record until `seconds` of wall-clock time have passed or
// the row's `stop` is raised; each buffer that is full by then is still written, once. Logs what
// notifications came meanwhile. Without the owner's consent nothing is written: full buffers are
// held until it is back. Returns 0, or -EINVAL after a failure, which is logged; the record then
// survives the next begin. Thread: the row's.
int process_incoming_pkt(timed_campaign* campaign, uint64_t seconds);

// Copies min(dst_size, src_size) bytes and returns that count.
size_t memscpy(void* dst, size_t dst_size, const void* src, size_t src_size);
