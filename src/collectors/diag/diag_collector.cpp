#define LOG_TAG "vexastatsd"

#include "collectors/diag/diag_collector.h"

#include <errno.h>

#include <atomic>

#include "collectors/diag/diag_buffers.h"
#include "collectors/diag/diag_campaign.h"
#include "collectors/diag/diag_notify.h"
#include "collectors/diag/diag_session.h"
#include "platform/log.h"
#include "timed_campaign/campaign_record.h"

namespace {

// The row that diag_dci_exit stops.
std::atomic<collector_info*> g_row{nullptr};

struct diag_collector {
    timed_campaign campaign{};
    diag_session session{};
};

unsigned long now_s() {
    return static_cast<unsigned long>(campaign_now_s());
}

// Hands the record over, also an empty one: deliberate. Without the owner's consent it is deleted.
void finish_record(diag_collector* c) {
    if (!campaign_has_consent(c->campaign)) {
        campaign_discard_record(&c->campaign);
        return;
    }
    campaign_hand_over_record(&c->campaign);
}

uint64_t remaining_s(const campaign_state& state) {
    const uint64_t now = campaign_now_s();
    return state.stop_time_s > now ? state.stop_time_s - now : 0;
}

// Until the campaign's time has come, which ends it, or the row has to stop, which does not.
void collect_packets(diag_collector* c) {
    campaign_state* state = &c->campaign.state;
    while (!c->campaign.stopped() && c->campaign.runs()) {
        if (process_incoming_pkt(&c->campaign, remaining_s(*state)) != 0) {
            stop_flag_raise(&c->campaign.row->stop);
        }
        if (remaining_s(*state) == 0) {
            ALOGI("Stopping Diag Campaign %d : Stop Time %lu", state->id,
                  static_cast<unsigned long>(state->stop_time_s));
            campaign_end(state);
        }
    }
}

void run_campaign(diag_collector* c) {
    ALOGI("Starting Diag Campaign %d : Stop Time %lu, CurrTime %lu", c->campaign.state.id,
          static_cast<unsigned long>(c->campaign.state.stop_time_s), now_s());
    collect_packets(c);
    ALOGI("Stop Processing DIAG Packets: Curr Time %lu Thread Stat: %s", now_s(),
          c->campaign.stopped() ? "TRUE" : "FALSE");
}

// One cycle, from the wait for a campaign to the hand-over of its record.
void run_cycle(void* owner) {
    auto* c = static_cast<diag_collector*>(owner);
    if (campaign_open_record(&c->campaign)) {
        const int result = diag_monitor_get_campaign_config(c->campaign.row);
        // Stopped before there was a campaign: there is nothing to hand over.
        if (result == -EINTR) return;
        // Notifications that came while nobody listened are logged by the campaign's first wait:
        // only then the library, which is asked about each, is up.
        if (result == 0 && diag_monitor_diag_init(&c->session, c->campaign) == 0) run_campaign(c);
        finish_record(c);
    }
    diag_monitor_diag_deinit(&c->session, &c->campaign);
}

}  // namespace

int diag_monitor(collector_info* row) {
    g_row = row;
    diag_collector collector{.campaign = {.kind = &DIAG_CAMPAIGN, .row = row}};
    diag_notify_install();
    campaign_run(&collector.campaign, run_cycle, &collector);
    ALOGI("DIAG monitor exit\n");
    return 0;
}

void diag_dci_exit(int signo) {
    diag_set_last_signal(signo);
    if (collector_info* row = g_row) stop_flag_raise(&row->stop);
}
