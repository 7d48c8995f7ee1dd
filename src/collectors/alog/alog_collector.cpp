#define LOG_TAG "vexastatsd-alog"

#include "collectors/alog/alog_collector.h"

#include "collectors/alog/alog_campaign.h"
#include "collectors/alog/alog_record.h"
#include "framework/time/interruptible.h"
#include "platform/log.h"

namespace {

struct alog_collector {
    collector_info* row = nullptr;
    alog_record record{};
    unique_logger_list reader{};

    bool stopped() const { return stop_flag_is_raised(row->stop); }
};

unsigned long now_s() {
    return static_cast<unsigned long>(campaign_now_s());
}

// ---- The campaign

void end_campaign_in_time(alog_collector* c) {
    const timed_campaign& campaign = g_alog_campaign;
    if (campaign_now_s() < campaign.stop_time_s) return;
    interruptible_leave(&c->row->library_calls);
    ALOGI("Stopping ALOG Campaign %d : Stop Time %lu", campaign.id,
          static_cast<unsigned long>(campaign.stop_time_s));
    alog_campaign_end();
}

// The id that keeps the loop going is looked at before the end is looked for. So one more entry is
// read after the end, and the end is logged again, for no campaign: deliberate.
void read_entries(alog_collector* c) {
    int32_t id = g_alog_campaign.id;
    while (!c->stopped() && id != NO_CAMPAIGN) {
        if (alog_log_read(&c->record, &c->reader) < 1) stop_flag_raise(&c->row->stop);
        id = g_alog_campaign.id;
        end_campaign_in_time(c);
    }
    interruptible_leave(&c->row->library_calls);
}

void run_campaign(alog_collector* c) {
    const unsigned long stop_time_s = g_alog_campaign.stop_time_s;
    const unsigned long begin_s = now_s();
    ALOGI("Starting ALOG Campaign %d : Stop Time %lu, CurrTime %lu", g_alog_campaign.id,
          stop_time_s, begin_s);
    if (stop_time_s > begin_s) {
        ALOGI("alog_active_campaign_remaining_time = %lu", stop_time_s - begin_s);
        read_entries(c);
    } else {
        ALOGE("Wrong cfg, alog_active_campaign_remaining_time = %lu, ", 0ul);
    }
    ALOGI("Stop Processing ALOG Packets: Curr Time %lu Thread Stat: %s", now_s(),
          c->stopped() ? "TRUE" : "FALSE");
}

// One cycle, from the wait for a campaign to the hand-over of its record.
void run_cycle(void* owner) {
    auto* c = static_cast<alog_collector*>(owner);
    c->record.row = c->row;
    if (!alog_campaign_open_record(c->row, &c->record.handle)) return;
    if (alog_monitor_get_campaign_config(c->row) != 0) return;
    if (alog_log_start(&c->record, &c->reader) != 0) return;
    run_campaign(c);
    alog_log_end(&c->record, &c->reader);
}

}  // namespace

int alog_monitor(collector_info* row) {
    alog_collector collector{.row = row};
    alog_campaign_run(row, run_cycle, &collector);
    vexastats_record_close(&collector.record.handle);
    ALOGI("ALOG monitor exit\n");
    return 0;
}
