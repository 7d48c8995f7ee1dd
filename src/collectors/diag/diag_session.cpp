#define LOG_TAG "vexastatsd"

#include "collectors/diag/diag_session.h"

#include <stdio.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>

#include "collectors/diag/diag_buffers.h"
#include "collectors/diag/diag_notify.h"
#include "platform/diag.h"
#include "platform/log.h"
#include "timed_campaign/campaign_record.h"

namespace {

constexpr int LOCAL_PROCESSOR = 0;
constexpr uint32_t PACKETS_PER_REPORT = 1000;

// For the library's callback, which is given nothing of ours.
std::atomic<uint32_t> g_packet_count{0};  // since the process began
std::atomic<const collector_info*> g_row{nullptr};

struct log_codes {
    std::unique_ptr<uint16_t[]> codes{};
    int count = 0;
};

// The campaign's codes as the library takes them: their low 16 bits. The list may be gone while its
// count stays; there are none then. Returns false when there is no memory.
bool campaign_codes(const campaign_state& campaign, log_codes* out) {
    out->count = campaign.masks ? campaign.mask_count : 0;
    out->codes.reset(new (std::nothrow) uint16_t[static_cast<size_t>(out->count)]);
    if (!out->codes) return false;
    for (int i = 0; i < out->count; ++i) {
        out->codes[i] = static_cast<uint16_t>(campaign.masks[i]);
    }
    return true;
}

void log_refused_codes(int client_id, const log_codes& codes) {
    char text[128] = "";
    size_t len = 0;
    for (int i = 0; i < codes.count && len < sizeof text; ++i) {
        len +=
            static_cast<size_t>(snprintf(text + len, sizeof text - len, "0x%x , ", codes.codes[i]));
    }
    ALOGE("Client %d #Masks %d Mask: %s", client_id, codes.count, text);
}

bool start_library(diag_session* session) {
    session->library_is_up = Diag_LSM_Init(nullptr) != 0;
    if (session->library_is_up) return true;
    ALOGE(" Diag_LSM_Init() Failed\n");
    Diag_LSM_DeInit();
    return false;
}

bool register_client(diag_session* session) {
    diag_dci_peripherals peripherals = DIAG_CON_MPSS;
    int signo = DIAG_NOTIFY_SIGNAL;
    const int result =
        diag_register_dci_client(&session->client_id, &peripherals, LOCAL_PROCESSOR, &signo);
    if (result == DIAG_DCI_NO_ERROR) return true;
    ALOGE(" Couldn't register DCI Client ID %d, Err %d\n", session->client_id, result);
    session->client_id = diag_session::NO_CLIENT;
    return false;
}

bool request_codes(const diag_session& session, const log_codes& codes) {
    const int result = diag_log_stream_config(session.client_id, 1, codes.codes.get(), codes.count);
    if (result == DIAG_DCI_NO_ERROR) return true;
    ALOGE(" Error sending SET_LOG_MASK to peripheral, err: %d\n", result);
    log_refused_codes(session.client_id, codes);
    return false;
}

bool start_stream(const diag_session& session) {
    const int result =
        diag_register_dci_stream_proc(session.client_id, process_dci_log_stream, nullptr);
    if (result == DIAG_DCI_NO_ERROR) return true;
    ALOGE(" Unable to initialize stream, err: %d\n", result);
    return false;
}

void release_client(diag_session* session, const campaign_state& campaign) {
    log_codes codes;
    if (campaign_codes(campaign, &codes)) {
        (void)diag_log_stream_config(session->client_id, 0, codes.codes.get(), codes.count);
    }
    const int result = diag_release_dci_client(&session->client_id);
    session->client_id = diag_session::NO_CLIENT;
    if (result != DIAG_DCI_NO_ERROR) ALOGE(" Error releasing DCI connection, %d\n", result);
}

}  // namespace

int diag_monitor_diag_init(diag_session* session, const timed_campaign& campaign) {
    g_row = campaign.row;
    log_codes codes;
    if (!campaign_codes(campaign.state, &codes)) return -1;
    session->client_id = diag_session::NO_CLIENT;
    if (diag_dci_init_buffers() != 0) return -1;
    const bool started = start_library(session) && register_client(session) &&
                         request_codes(*session, codes) && start_stream(*session);
    return started ? 0 : -1;
}

void diag_monitor_diag_deinit(diag_session* session, timed_campaign* campaign) {
    // The library ends only when its thread is back from the callback, where it may wait for room.
    diag_dci_shut_buffers();
    if (session->client_id != diag_session::NO_CLIENT) release_client(session, campaign->state);
    // Also when the registration had failed: the library was up all the same.
    if (session->library_is_up) Diag_LSM_DeInit();
    session->library_is_up = false;
    diag_dci_release_buffers();
    campaign->state.masks.reset();
}

void process_dci_log_stream(unsigned char* data, int length) {
    const uint32_t count = ++g_packet_count;
    if (count % PACKETS_PER_REPORT == 0) {
        ALOGI(" Received %d Logs.Last Sig 0x%x\n", static_cast<int>(count),
              static_cast<unsigned>(diag_last_signal()));
    }
    const collector_info* row = g_row;
    if (row && campaign_is_opted_in(*row)) diag_dci_copy_to_buffer(DIAG_TYPE_LOG, data, length);
}
