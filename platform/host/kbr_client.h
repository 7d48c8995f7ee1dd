// A client of the messaging library from the inside. Its reader and its dispatcher, the calls in
// progress and whoever has the handle meet here.
#pragma once

#include <pthread.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "base/sync.h"
#include "base/unique_handle.h"
#include "host/kbr_message.h"
#include "platform/clock.h"
#include "platform/kbr.h"

struct indication {
    indication* next = nullptr;
    uint16_t msg_id = 0;
    uint16_t len = 0;

    uint8_t* bytes() { return reinterpret_cast<uint8_t*>(this + 1); }
};

// A call that waits for its response. It lives on its caller's stack.
struct pending_call {
    pending_call* next = nullptr;
    const kbr_message* expected = nullptr;
    void* response = nullptr;
    uint16_t transaction = 0;
    bool over = false;
    int result = KBR_ERR_TIMEOUT;
    unique_fd done{};  // eventfd, readable once it is over
};

struct deadline {
    int64_t end_ms = 0;

    static int64_t now_ms() {
        timespec now = {};
        (void)platform_clock_gettime(CLOCK_MONOTONIC, &now);
        return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
    }
    static deadline in_ms(int64_t ms) { return {.end_ms = now_ms() + ms}; }
    int64_t left_ms() const { return std::max<int64_t>(end_ms - now_ms(), 0); }
};

struct kbr_client {
    kbr_client() = default;
    ~kbr_client() {
        while (first) free(std::exchange(first, first->next));
    }
    kbr_client(const kbr_client&) = delete;
    kbr_client& operator=(const kbr_client&) = delete;

    const kbr_service_object* service = nullptr;
    kbr_indication_cb callback = nullptr;
    void* cb_data = nullptr;
    unique_fd socket{};

    // The handle, the dispatcher and every call in progress; the last to go frees the client.
    std::atomic<int> users{1};

    kbr_client* next_open = nullptr;  // in the list of clients that are not released

    vexa_mutex mutex{};
    vexa_cond changed{};  // the queue, the calls, or the two flags
    pthread_t reader GUARDED_BY(mutex){};
    pthread_t dispatcher GUARDED_BY(mutex){};
    pending_call* calls GUARDED_BY(mutex) = nullptr;
    uint16_t last_transaction GUARDED_BY(mutex) = 0;
    indication* first GUARDED_BY(mutex) = nullptr;
    indication* last GUARDED_BY(mutex) = nullptr;
    size_t queued GUARDED_BY(mutex) = 0;
    size_t queued_bytes GUARDED_BY(mutex) = 0;
    bool gone GUARDED_BY(mutex) = false;  // the modem has; set as well by the release
    bool released GUARDED_BY(mutex) = false;

    uint8_t packet[KBR_PACKET_MAX + 1];  // the reader's; a byte more shows that one is too long
};

// ---- kbr_call.cpp

// Makes a call, of a client that stays alive meanwhile: as kbr_client_send_msg_sync. Any thread.
int kbr_call(kbr_client* c, uint32_t msg_id, const void* request, uint32_t request_len,
             void* response, uint32_t response_len, uint32_t timeout_ms);

// Whether `structure` is one of that message. Any thread.
bool kbr_fits(const kbr_message& message, const void* structure, uint32_t len);

// Hands a response to the call that waits for it. Thread: the reader.
void kbr_deliver_response(kbr_client* c, const kbr_header& header, const uint8_t* fields);

// Ends every call in progress, and all that are to come. Thread: the reader.
void kbr_lose_connection(kbr_client* c);

// ---- kbr_reader.cpp

// The body of the reader: takes packets off the socket until the modem or the client has gone, and
// then ends all calls in progress. The argument is the client; returns null.
void* kbr_read_packets(void* client);
