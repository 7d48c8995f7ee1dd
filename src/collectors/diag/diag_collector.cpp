#define LOG_TAG "vexastatsd"

#include "collectors/diag/diag_collector.h"

#include <errno.h>

#include <atomic>

#include "collectors/diag/diag_buffers.h"
#include "collectors/diag/diag_campaign.h"
#include "collectors/diag/diag_notify.h"
#include "collectors/diag/diag_session.h"
#include "platform/log.h"
#include "timed_campaign/campaign_config.h"

namespace {

// The row that diag_dci_exit stops.
std::atomic<collector_info*> g_row{nullptr};

struct diag_collector {
    collector_info* row = nullptr;
    diag_record record{};

    bool stopped() const { return stop_flag_is_raised(row->stop); }
};

unsigned long now_s() {
    return static_cast<unsigned long>(campaign_now_s());
}

// Hands the record over, also an empty one: deliberate. Without the owner's consent it is deleted.
void finish_record(diag_collector* c) {
    if (!campaign_has_consent(*c->row)) {
        diag_campaign_discard_record(c->row, &c->record.handle);
        return;
    }
    diag_campaign_hand_over_record(c->row, &c->record.handle);
}

uint64_t remaining_s() {
    const uint64_t now = campaign_now_s();
    const uint64_t end = g_diag_campaign.stop_time_s;
    return end > now ? end - now : 0;
}

// Until the campaign's time has come, which ends it, or the row has to stop, which does not.
void collect_packets(diag_collector* c) {
    const timed_campaign& campaign = g_diag_campaign;
    while (!c->stopped() && campaign.id != NO_CAMPAIGN) {
        if (process_incoming_pkt(&c->record, remaining_s()) != 0) stop_flag_raise(&c->row->stop);
        if (remaining_s() == 0) {
            ALOGI("Stopping Diag Campaign %d : Stop Time %lu", campaign.id,
                  static_cast<unsigned long>(campaign.stop_time_s));
            diag_campaign_end();
        }
    }
}

void run_campaign(diag_collector* c) {
    ALOGI("Starting Diag Campaign %d : Stop Time %lu, CurrTime %lu", g_diag_campaign.id,
          static_cast<unsigned long>(g_diag_campaign.stop_time_s), now_s());
    collect_packets(c);
    ALOGI("Stop Processing DIAG Packets: Curr Time %lu Thread Stat: %s", now_s(),
          c->stopped() ? "TRUE" : "FALSE");
}

// One cycle, from the wait for a campaign to the hand-over of its record.
void run_cycle(void* owner) {
    auto* c = static_cast<diag_collector*>(owner);
    c->record.row = c->row;
    if (diag_campaign_open_record(c->row, &c->record.handle)) {
        const int result = diag_monitor_get_campaign_config(c->row);
        // Stopped before there was a campaign: there is nothing to hand over.
        if (result == -EINTR) return;
        // Notifications that came while nobody listened are logged by the campaign's first wait:
        // only then the library, which is asked about each, is up.
        if (result == 0 && diag_monitor_diag_init(c->row) == 0) run_campaign(c);
        finish_record(c);
    }
    diag_monitor_diag_deinit();
}

}  // namespace

int diag_monitor(collector_info* row) {
    g_row = row;
    diag_collector collector{.row = row};
    diag_notify_install();
    diag_campaign_run(row, run_cycle, &collector);
    vexastats_record_close(&collector.record.handle);
    ALOGI("DIAG monitor exit\n");
    return 0;
}

void diag_dci_exit(int signo) {
    diag_set_last_signal(signo);
    if (collector_info* row = g_row) stop_flag_raise(&row->stop);
}
