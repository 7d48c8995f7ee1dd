// A client of one of the modem's services: what the daemon's three of them share.
//
// A modem may be slow, mute or gone, and the library's calls then block for as long as their
// time-outs say, which is longer than the system waits for a daemon that is to end. So each is made
// by a thread of its own, and a raised stop flag ends the caller's wait at once:
//
//   connecting   is left to itself; a connection that comes of it is released unseen
//   a request    fails, because the client is released under it
//
// Once that flag is raised, or the client released, every further call is refused.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/sync.h"
#include "base/unique_handle.h"
#include "framework/time/stop.h"
#include "platform/kbr.h"

// What becomes of a call to the modem: the one vocabulary of all its clients.
enum class modem_result : int {
    // The messaging library's. A number that platform/kbr.h does not name stays what it is.
    OK = KBR_OK,
    FAILED = KBR_ERR_INTERNAL,
    REFUSED = KBR_ERR_REFUSED,  // by the modem
    TIMED_OUT = KBR_ERR_TIMEOUT,
    BAD_ARGUMENT = KBR_ERR_ARGUMENT,
    GONE = KBR_ERR_GONE,  // no service, a lost connection, or one that a stop released
    BAD_FORMAT = KBR_ERR_FORMAT,
    // The daemon's own, which the library never says.
    STOPPED = 1,      // a stop came between two requests
    NO_SERVICE,       // no description of the service
    TOO_LARGE,        // for its place in the request
    UNKNOWN_MESSAGE,  // not one of the service's
    NO_MEMORY,
};

// The number that the log has for a result. Several results share one: only the log may compare
// them by it. Any thread.
int modem_result_number(modem_result result);

// Every response of a service begins with this pair.
struct modem_answer {
    uint32_t result = 0;  // 0: success
    uint32_t error = 0;
};
static_assert(sizeof(modem_answer) == 8);

struct modem_connection;

// Lives as long as the process.
struct modem_client {
    vexa_mutex mutex{};
    modem_connection* connection GUARDED_BY(mutex) = nullptr;
};

// `service` when it is of that version and for that library, else null. Any thread.
inline const kbr_service_object* modem_client_service(const kbr_service_object& service,
                                                      uint32_t major, uint32_t minor,
                                                      uint32_t library) {
    const bool known = major == service.idl_version && minor == service.idl_minor_version &&
                       library == service.library_version;
    return known ? &service : nullptr;
}

// Connects a client without a connection, as kbr_client_init_instance does with any instance and
// four seconds; the callback's cb_data is null, and none runs before the client is connected. GONE
// once `stop` is raised. One thread at a time.
modem_result modem_client_connect(modem_client* client, const kbr_service_object* service,
                                  kbr_indication_cb indication_cb, const stop_flag& stop);

// How to go about a service that may not be there yet. Attempts are counted from 0.
struct modem_patience {
    int attempts = 1;
    int64_t pause_ms = 0;  // after a failed attempt
    bool pauses_after_last = false;
    // Both may be null.
    void (*note_failure)(modem_result result, int attempt) = nullptr;
    void (*note_retry)(int attempt) = nullptr;  // before each attempt but the first
};

// The same, in several attempts, until `stop` is raised. Returns the last attempt's result.
modem_result modem_client_connect_patiently(modem_client* client, const kbr_service_object* service,
                                            kbr_indication_cb indication_cb,
                                            const modem_patience& patience, const stop_flag& stop);

// Whether there is a connection that was not released. Any thread.
bool modem_client_is_connected(modem_client* client);

// Sends a request, as kbr_client_send_msg_sync does. GONE without a connection, and once `stop` is
// raised, which releases the client. The caller holds nothing that the client's callback waits for.
// Any thread but the callback's.
modem_result modem_client_send(modem_client* client, uint16_t msg_id, const void* request,
                               size_t request_len, void* response, size_t response_len,
                               uint32_t timeout_ms, const stop_flag& stop);

// The same from the callback, with the client that it was handed: whoever releases that ends the
// request.
modem_result modem_callback_send(kbr_client* client, uint16_t msg_id, const void* request,
                                 size_t request_len, void* response, size_t response_len,
                                 uint32_t timeout_ms);

// What became of a request, by its sending and its answer: a library may hand a refusal over as a
// response only. Any thread.
inline modem_result modem_verdict(modem_result sent, const modem_answer& answer) {
    return sent == modem_result::OK && answer.result != 0 ? modem_result::REFUSED : sent;
}

// Decodes an indication's `len` bytes. On OK *structure is its C structure, of the size that the
// service says. Otherwise UNKNOWN_MESSAGE, NO_MEMORY, or why the bytes are no such message. Logs
// nothing. Thread: the callback's.
modem_result modem_client_decode(kbr_client* client, const kbr_service_object* service,
                                 uint32_t msg_id, const void* buf, uint32_t len,
                                 unique_malloc<void>* structure);

// Releases the connection, if there is one: calls in progress fail, and when the one call that
// found it returns, no callback runs any more. Under the same conditions as a request.
void modem_client_release(modem_client* client);
