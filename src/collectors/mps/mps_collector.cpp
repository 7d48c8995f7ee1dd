#define LOG_TAG "vexastatsd"

#include "collectors/mps/mps_collector.h"

#include <errno.h>
#include <pthread.h>
#include <sys/stat.h>

#include <atomic>

#include "base/text_file.h"
#include "collectors/mps/mps_campaign_desc.h"
#include "collectors/mps/mps_data.h"
#include "collectors/mps/mps_kbr.h"
#include "collectors/mps/mps_service_thread.h"
#include "collectors/mps/mps_timers.h"
#include "framework/row/optout.h"
#include "framework/time/clock.h"
#include "framework/time/wait_dir.h"
#include "mps_events/mps_campaign_board.h"
#include "mps_events/mps_events.h"
#include "platform/log.h"

namespace {

// What follows a turn of the thread: another one, or its end.
enum class next_turn { AGAIN, END };

constexpr char MAIN[] = "mps_main";
constexpr char STATS_DIR[] = "/data/vendor/vexastats/6";
constexpr uint32_t FETCH_INTERVAL_MIN_S = 300;

struct mps_collector {
    collector_info* row = nullptr;
    mps_collection collection{};
    pthread_t service_thread{};
    bool has_service_thread = false;
    bool service_ready = false;
    bool flush_pending = false;  // a stop has flushed the service, its data have not come yet
    bool collecting = false;
    bool opted_out = false;    // what the loss of consent calls for has been done
    bool discarding = false;   // until the next collection: what comes is removed unread
    bool restart_due = false;  // the loss of consent, and no campaign's stop, ended the collection
    uint32_t fetch_interval_s = FETCH_INTERVAL_MIN_S;

    bool stopped() const { return stop_flag_is_raised(row->stop); }
};

// Consent went, perhaps for less time than the thread was in a call. Lives as long as the process.
std::atomic<bool> g_consent_went{false};

// ---- Start

bool open_record(mps_collector* c) {
    // Without one, the next data that is dropped tries again.
    if (!mps_open_record(&c->collection)) ALOGE("failed to open record file for cpu\n");
    if (!is_dir_exist(STATS_DIR) && mkdir(STATS_DIR, 0700) != 0) {
        ALOGE("failed to create %s. err:%d\n", STATS_DIR, errno);
        return false;
    }
    return true;
}

bool start_service_thread(mps_collector* c) {
    const int error = pthread_create(&c->service_thread, nullptr, kbr_handler, &c->row->stop);
    c->has_service_thread = error == 0;
    if (error == 0) return true;
    ALOGE("%s: failed to create thread. err:%d\n", MAIN, error);
    ALOGE("%s: failed to register kbr handler\n", MAIN);
    return false;
}

bool start(mps_collector* c) {
    vexastats_wait_optin(c->row);
    if (!c->row->enabled) return false;
    vexastats_wait_dir_ready(c->row->down_dir, &c->row->stop);
    if (c->stopped() || !open_record(c)) return false;
    if (!start_service_thread(c)) return false;
    mps_timer_create(MPS_TIMER_LL_DELAY, c->row->stop);
    mps_timer_create(MPS_TIMER_FETCH, c->row->stop);
    return true;
}

// ---- The fetch timer

void start_fetch_timer(const mps_collector& c) {
    if (!mps_timer_exists(MPS_TIMER_FETCH)) return;
    ALOGI("Starting fetch timer for  %d secs", static_cast<int>(c.fetch_interval_s));
    const int error = mps_timer_set(MPS_TIMER_FETCH, c.fetch_interval_s);
    if (error != 0) ALOGE("Failed to start timer err:%d", error);
}

void stop_fetch_timer() {
    if (!mps_timer_exists(MPS_TIMER_FETCH)) return;
    ALOGI("Stopping fetch timer");
    const int error = mps_timer_set(MPS_TIMER_FETCH, 0);
    if (error != 0) ALOGE("Failed to stop timer err:%d", error);
}

// Both timers expired together are served by nobody, then or later: deliberate.
void mps_handle_timer_expiry(const mps_collector& c) {
    switch (mps_timers_expired()) {
        case MPS_TIMER_FETCH:
            mps_clear_timer_expired(MPS_TIMER_FETCH);
            (void)mps_kbr_fetch_results();
            start_fetch_timer(c);
            return;
        case MPS_TIMER_LL_DELAY:
            mps_clear_timer_expired(MPS_TIMER_LL_DELAY);
            (void)mps_kbr_send_lll_start_req();
            return;
        default:
            return;
    }
}

// ---- A campaign's start

// Hands the campaign to the modem. Returns whether the collection runs.
bool start_collection(const mps_collector& c, const owned_bytes& logic, uint32_t subscription_id,
                      MpsCampaign* campaign) {
    if (!mps_campaign_desc_decode_from_buffer(logic.bytes.get(), logic.length, campaign)) {
        ALOGE("%s: Could not decode mps campaign desc from buffer\n", MAIN);
    }
    return mps_kbr_init_mpss_bsi(campaign, subscription_id, c.row->stop) == modem_result::OK;
}

void note_collection(mps_collector* c, const MpsCampaign& campaign, uint32_t campaign_id) {
    if (campaign.bsiBufferFetchIntSec > FETCH_INTERVAL_MIN_S) {
        c->fetch_interval_s = campaign.bsiBufferFetchIntSec;
    }
    start_fetch_timer(*c);
    c->collecting = true;
    c->discarding = false;
    c->row->hdr.campaign_id = campaign_id;
    c->collection.start = mps_time_now();
}

// ---- Events, each cleared by what serves it

void stop_collection(mps_collector* c) {
    if (mps_kbr_stop_flush_bsi() == modem_result::OK) {
        c->flush_pending = true;
        c->collecting = false;
    }
    stop_fetch_timer();
    ALOGI("Stopped BSI");
}

void serve_campaign_stop(mps_collector* c) {
    mps_clear_event(MPS_EVENT_CAMPAIGN_STOP);
    c->restart_due = false;
    stop_collection(c);
}

void serve_service_ready(mps_collector* c) {
    mps_clear_event(MPS_EVENT_KBR_READY);
    ALOGI("%s: MPS_EVENT_KBR_READY\n", MAIN);
    c->service_ready = true;
}

// The data of a flush, if there was one, have come.
void end_flush(mps_collector* c) {
    if (c->flush_pending) c->row->hdr.campaign_id = 0;  // the campaign is over
    c->flush_pending = false;
}

// Interrupts the LLL collection until the LL delay timer resumes it.
void pause_lll() {
    if (!mps_kbr_is_lll_collected()) return;
    if (mps_kbr_send_lll_stop_req()) (void)mps_start_ll_delay_timer();  // which logs its failure
}

void serve_send_complete(mps_collector* c) {
    ALOGI("%s: MPS_EVENT_SEND_COMPLETE\n", MAIN);
    mps_clear_event(MPS_EVENT_SEND_COMPLETE);
    if (c->discarding) {
        mps_rfs_data_discard();
    } else {
        (void)mps_rfs_data_read(&c->collection);
    }
    if (c->stopped()) return;
    pause_lll();
    end_flush(c);
}

void begin_campaign(mps_collector* c) {
    c->restart_due = false;
    const mps_campaign_board board = mps_board_read();
    const uint32_t subscription_id = board.phone.default_sub;
    if (!board.logic.bytes || subscription_id == CAMPAIGN_INVALID_SUB) {
        ALOGE("CL data not injected 0x%x KBR Init State %s Default Sub id = %d",
              static_cast<unsigned>(board.logic.length), c->service_ready ? "TRUE" : "FALSE",
              static_cast<int>(subscription_id));
        return;
    }
    MpsCampaign campaign;
    if (start_collection(*c, board.logic, subscription_id, &campaign)) {
        note_collection(c, campaign, board.campaign_id);
    }
}

void serve_campaign_start(mps_collector* c) {
    if (!c->service_ready || c->flush_pending) return;  // in a later pass
    mps_clear_event(MPS_EVENT_CAMPAIGN_START);
    begin_campaign(c);
}

void serve_buffer_full(mps_collector*) {
    ALOGI("%s: MPS_EVENT_BUFFER_FULL\n", MAIN);
    mps_clear_event(MPS_EVENT_BUFFER_FULL);
    (void)mps_kbr_fetch_results();
}

void serve_modem_restart(mps_collector*) {
    ALOGI("%s: MPS_EVENT_MODEM_RESTART\n", MAIN);
    mps_clear_event(MPS_EVENT_MODEM_RESTART);
}

void serve_fetch_timer(mps_collector* c) {
    ALOGI("%s: MPS_EVENT_FETCH_TIMER\n", MAIN);
    mps_clear_event(MPS_EVENT_FETCH_TIMER);
    (void)mps_kbr_fetch_results();
    start_fetch_timer(*c);
}

void serve_timer(mps_collector* c) {
    ALOGI("%s: MPS_EVENT_TIMER\n", MAIN);
    mps_clear_event(MPS_EVENT_TIMER);
    mps_handle_timer_expiry(*c);
}

struct event_server {
    uint32_t event = 0;
    void (*serve)(mps_collector* c) = nullptr;
};

// In the order in which the events of one pass are served.
constexpr event_server EVENTS[] = {
    {.event = MPS_EVENT_CAMPAIGN_STOP, .serve = serve_campaign_stop},
    {.event = MPS_EVENT_KBR_READY, .serve = serve_service_ready},
    {.event = MPS_EVENT_SEND_COMPLETE, .serve = serve_send_complete},
    {.event = MPS_EVENT_CAMPAIGN_START, .serve = serve_campaign_start},
    {.event = MPS_EVENT_BUFFER_FULL, .serve = serve_buffer_full},
    {.event = MPS_EVENT_MODEM_RESTART, .serve = serve_modem_restart},
    {.event = MPS_EVENT_FETCH_TIMER, .serve = serve_fetch_timer},
    {.event = MPS_EVENT_TIMER, .serve = serve_timer},
};

// Takes up the collection that the loss of consent ended, unless a campaign's stop is waiting.
void restart_collection(mps_collector* c) {
    if (!c->restart_due || !c->service_ready || c->flush_pending) return;
    if (mps_events() & (MPS_EVENT_CAMPAIGN_STOP | MPS_EVENT_CAMPAIGN_START)) return;
    begin_campaign(c);
}

// Serves the events that are there now; what is raised meanwhile comes in the next pass.
void run_pass(mps_collector* c) {
    const uint32_t events = mps_events();
    ALOGI("Got event %d %d\n", static_cast<int>(events), vexastats_timezone_min());
    for (const event_server& server : EVENTS) {
        // Each may have waited for the modem. What is left is served once there is consent.
        if (c->stopped() || !c->row->enabled) return;
        if (events & server.event) server.serve(c);
    }
    restart_collection(c);
    ALOGI("%s: Signal Sent while processing %d Events Remaining %d\n", MAIN,
          static_cast<int>(mps_signal_count()), static_cast<int>(events));
    mps_wait_for_signal(c->row->stop);
}

// ---- Without consent

void lose_consent(mps_collector* c) {
    c->opted_out = true;
    c->discarding = true;
    if (c->collecting) {
        stop_collection(c);
        c->restart_due = true;
    }
    mps_rfs_data_discard();
}

void regain_consent(mps_collector* c) {
    c->opted_out = false;
    if (c->collecting) stop_collection(c);  // the modem did not answer when it went
    mps_rfs_data_discard();
}

// Events that ask for data, and the timers: there is nothing that they could be for.
void forget_requests(uint32_t events) {
    constexpr uint32_t REQUESTS = MPS_EVENT_BUFFER_FULL | MPS_EVENT_FETCH_TIMER | MPS_EVENT_TIMER;
    if (events & MPS_EVENT_TIMER) mps_clear_timer_expired(mps_timers_expired());
    if (events & REQUESTS) mps_clear_event(events & REQUESTS);
}

// Serves stops, and removes what still comes of one. What else is raised stays until there is
// consent, which is waited for until the row is terminated.
next_turn wait_opted_out(mps_collector* c) {
    if (c->row->terminate) return next_turn::END;
    const uint32_t events = mps_events();
    if (events & MPS_EVENT_CAMPAIGN_STOP) serve_campaign_stop(c);
    if (events & MPS_EVENT_SEND_COMPLETE) {
        mps_clear_event(MPS_EVENT_SEND_COMPLETE);
        mps_rfs_data_discard();
        end_flush(c);
    }
    forget_requests(events);
    mps_wait_for_signal(c->row->stop);
    return next_turn::AGAIN;
}

next_turn run_turn(mps_collector* c) {
    if (g_consent_went.exchange(false) || (!c->row->enabled && !c->opted_out)) lose_consent(c);
    if (c->stopped()) return next_turn::END;
    if (!c->row->enabled) return wait_opted_out(c);
    if (c->opted_out) regain_consent(c);
    run_pass(c);
    return next_turn::AGAIN;
}

// ---- End

// The release makes what the service thread may be in fail.
void end(mps_collector* c) {
    stop_flag_raise(&c->row->stop);
    if (c->has_service_thread) {
        mps_kbr_client_release();
        (void)pthread_join(c->service_thread, nullptr);
    }
    mps_timers_end();
}

}  // namespace

int mps_main(collector_info* collector) {
    mps_collector c{.row = collector, .collection = {.row = collector}};
    if (start(&c)) {
        while (!c.stopped() && run_turn(&c) == next_turn::AGAIN) {
        }
    }
    end(&c);
    return 0;
}

void mps_consent_changed(const collector_info& row) {
    if (!row.enabled) g_consent_went = true;
    mps_signal_collector();
}
