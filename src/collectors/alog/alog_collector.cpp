#define LOG_TAG "vexastatsd-alog"

#include "collectors/alog/alog_collector.h"

#include "collectors/alog/alog_campaign.h"
#include "collectors/alog/alog_record.h"
#include "framework/time/interruptible.h"
#include "platform/log.h"
#include "timed_campaign/campaign_record.h"

namespace {

struct alog_collector {
    timed_campaign campaign{};
    alog_record record{.campaign = &campaign};
    unique_logger_list reader{};
};

unsigned long now_s() {
    return static_cast<unsigned long>(campaign_now_s());
}

// ---- The campaign

void end_campaign_in_time(alog_collector* c) {
    campaign_state* state = &c->campaign.state;
    if (campaign_now_s() < state->stop_time_s) return;
    interruptible_leave(&c->campaign.row->library_calls);
    ALOGI("Stopping ALOG Campaign %d : Stop Time %lu", state->id,
          static_cast<unsigned long>(state->stop_time_s));
    campaign_end(state);
}

// What keeps the loop going is looked at before the end is looked for. So one more entry is
// read after the end, and the end is logged again, for no campaign: deliberate.
void read_entries(alog_collector* c) {
    collector_info* row = c->campaign.row;
    for (bool runs = c->campaign.runs(); runs && !c->campaign.stopped();) {
        if (alog_log_read(&c->record, &c->reader) < 1) stop_flag_raise(&row->stop);
        runs = c->campaign.runs();
        end_campaign_in_time(c);
    }
    interruptible_leave(&row->library_calls);
}

void run_campaign(alog_collector* c) {
    const unsigned long stop_time_s = c->campaign.state.stop_time_s;
    const unsigned long begin_s = now_s();
    ALOGI("Starting ALOG Campaign %d : Stop Time %lu, CurrTime %lu", c->campaign.state.id,
          stop_time_s, begin_s);
    if (stop_time_s > begin_s) {
        ALOGI("alog_active_campaign_remaining_time = %lu", stop_time_s - begin_s);
        read_entries(c);
    } else {
        ALOGE("Wrong cfg, alog_active_campaign_remaining_time = %lu, ", 0ul);
    }
    ALOGI("Stop Processing ALOG Packets: Curr Time %lu Thread Stat: %s", now_s(),
          c->campaign.stopped() ? "TRUE" : "FALSE");
}

// One cycle, from the wait for a campaign to the hand-over of its record.
void run_cycle(void* owner) {
    auto* c = static_cast<alog_collector*>(owner);
    if (!campaign_open_record(&c->campaign)) return;
    if (alog_monitor_get_campaign_config(c->campaign.row) != 0) return;
    if (alog_log_start(&c->record, &c->reader) != 0) return;
    run_campaign(c);
    alog_log_end(&c->record, &c->reader);
}

}  // namespace

int alog_monitor(collector_info* row) {
    alog_collector collector{.campaign = {.kind = &ALOG_CAMPAIGN, .row = row}};
    campaign_run(&collector.campaign, run_cycle, &collector);
    ALOGI("ALOG monitor exit\n");
    return 0;
}
