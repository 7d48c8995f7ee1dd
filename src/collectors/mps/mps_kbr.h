// The daemon's client of the modem's performance statistics service. There is one for the process.
//
// Three threads meet here: the service thread connects, the collector's thread sends requests and
// releases, the messaging library's thread brings indications. Requests are sent with no lock held.
// A stop ends connecting and every request at once; whatever comes after it is refused, so that the
// client may be released while the service thread still uses it.
//
// FAILED stands for a null argument and a client that was never initialised, too; STOPPED for a
// stop between two requests. Failures are logged with modem_result_number.
#pragma once

#include <cstddef>
#include <cstdint>

#include "collectors/mps/mps_campaign_desc.h"
#include "framework/time/stop.h"
#include "modem_client/modem_client.h"
#include "platform/kbr.h"

// Gets an event of mps_events/mps_events.h. Thread: the messaging library's.
using mps_kbr_callback = void (*)(uint32_t event);

struct mps_service_revision {
    uint32_t major = 0;
    uint32_t minor = 0;
};

// Connects to the service. `stop` ends this and every call up to the release, which it outlives.
// Thread: the service thread.
modem_result mps_kbr_init(const stop_flag& stop);

// Who gets the events of the service's indications; null: nobody. Any thread.
void mps_kbr_register_cb(mps_kbr_callback callback);

// Asks for the service's revision; a number that the modem leaves out is 0. Any thread.
modem_result mps_kbr_get_service_rev(uint32_t* major, uint32_t* minor);

// What the modem said last; zeros before it did. Any thread.
mps_service_revision mps_kbr_service_revision();

// Hands a campaign's specs to the modem and starts the collection. `stop` is looked at before each
// request. The subscription id is counted from 1; 0:
// none. Thread: the collector's, as for all that follow.
modem_result mps_kbr_init_mpss_bsi(const MpsCampaign* record, uint32_t subscription_id,
                                   const stop_flag& stop);

// Announces `parts` parts of collection logic and hands over the static spec. One above
// 800 bytes is refused as TOO_LARGE.
modem_result mps_kbr_send_start_prepare_req(const MpsCampaign* record, size_t parts,
                                            uint32_t subscription_id);

// Ends the collection and has the modem hand over what it has.
modem_result mps_kbr_stop_flush_bsi();

// Has the modem hand over its results.
modem_result mps_kbr_fetch_results();

// Whether a collection that has an LLL spec runs.
bool mps_kbr_is_lll_collected();

// Resume and interrupt the LLL collection. Without a collection that has an LLL spec they
// send nothing and give true. Return whether nothing failed.
bool mps_kbr_send_lll_start_req();
bool mps_kbr_send_lll_stop_req();

// Seconds between an LLL stop and the next start, of the latest campaign with an LLL spec.
// Any thread.
uint32_t mps_kbr_get_lll_delayt_timer_secs();

// Disconnects; no indication comes after it. That the client was never initialised is logged.
void mps_kbr_client_release();

// Handles an indication. Thread: the messaging library's.
void mps_kbr_ind_cb(kbr_client* client, uint32_t msg_id, void* buf, uint32_t len, void* cb_data);
