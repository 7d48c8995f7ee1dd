#define LOG_TAG "vexastatsd-mbl"

#include "collectors/mccbandlist/pdc_kbr.h"

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>

#include <algorithm>

#include "base/unique_handle.h"
#include "collectors/mccbandlist/pdc_client.h"
#include "framework/time/clock.h"
#include "framework/time/wait.h"
#include "modem_client/modem_client.h"
#include "platform/log.h"

pdc_client g_pdc;

namespace {

constexpr uint32_t REQUEST_TIMEOUT_MS = 10000;
constexpr uint64_t INFO_LIMIT_MS = 10000;

constinit modem_client g_link;

// ---- Calls

// A call in progress from its first step to its last, whatever way it ends.
class pdc_call {
  public:
    explicit pdc_call(pdc_operation* operation, pdc_config_info* record = nullptr)
        : operation_(operation) {
        const vexa_lock held(g_pdc.mutex);
        refused_ = operation->busy;
        if (refused_) return;
        if (++g_pdc.last_token == 0) ++g_pdc.last_token;
        *operation = {.wake_fd = operation->wake_fd,
                      .busy = true,
                      .token = g_pdc.last_token,
                      .record = record};
        eventfd_t ignored = 0;
        (void)eventfd_read(operation->wake_fd, &ignored);
    }
    ~pdc_call() {
        if (refused_) return;
        const vexa_lock held(g_pdc.mutex);
        *operation_ = {.wake_fd = operation_->wake_fd};
    }
    pdc_call(const pdc_call&) = delete;
    pdc_call& operator=(const pdc_call&) = delete;

    bool is_refused() const { return refused_; }
    uint32_t token() const {
        const vexa_lock held(g_pdc.mutex);
        return operation_->token;
    }

    // Whether the indication has yet to be waited for; its arrival then makes the descriptor
    // readable, which lives as long as the process.
    bool begin_wait(int* wake_fd) {
        const vexa_lock held(g_pdc.mutex);
        operation_->waiting = !operation_->done;
        *wake_fd = operation_->wake_fd;
        return operation_->waiting;
    }
    // Returns the indication's result, or PDC_FAILED with *missing set when there was none.
    int32_t end_wait(bool* missing) {
        const vexa_lock held(g_pdc.mutex);
        operation_->waiting = false;
        *missing = !operation_->done;
        return operation_->done ? operation_->result : PDC_FAILED;
    }

  private:
    pdc_operation* operation_;
    bool refused_ = false;
};

// Opens the operation's descriptor, once.
bool open_wake_fd(pdc_operation* operation) {
    if (operation->wake_fd < 0) operation->wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return operation->wake_fd >= 0;
}

// The error number that a wait for an indication ended with, after vexastats_poll's result.
int wait_error(int ready) {
    return ready == 0 ? ETIMEDOUT : std::max(-ready, 0);
}

// Each waits for the indication and returns its result.

int32_t wait_for_info(pdc_call* call, const char* function, const stop_flag& stop) {
    pollfd wake{.fd = -1, .events = POLLIN, .revents = 0};
    int ready = 1;
    if (call->begin_wait(&wake.fd)) {
        ALOGI("%s : waiting pdc_get_info_cond ", function);
        const auto until_ms = static_cast<int64_t>(vexastats_real_time_ms() + INFO_LIMIT_MS);
        ready = vexastats_poll_until(&wake, 1, until_ms, stop);
    }
    bool missing = false;
    const int32_t result = call->end_wait(&missing);
    if (missing) ALOGE("%s : pdc_get_info_cond exit with %d", function, wait_error(ready));
    return result;
}

int32_t wait_for_load(pdc_call* call, const char* function, const stop_flag& stop) {
    pollfd wake{.fd = -1, .events = POLLIN, .revents = 0};
    int ready = 1;
    if (call->begin_wait(&wake.fd)) ready = vexastats_poll(&wake, 1, PDC_LOAD_LIMIT_MS, stop);
    bool missing = false;
    const int32_t result = call->end_wait(&missing);
    if (missing) ALOGE("%s : pdc_load_config_cond exit with %d", function, wait_error(ready));
    return result;
}

template <class Request>
modem_result send(uint16_t msg_id, const Request& request, modem_answer* answer,
                  const stop_flag& stop) {
    return modem_client_send(&g_link, msg_id, &request, sizeof request, answer, sizeof *answer,
                             REQUEST_TIMEOUT_MS, stop);
}

// A response is there only when the transport says so.
bool is_info_request_accepted(modem_result sent, const modem_answer& answer) {
    if (sent != modem_result::OK && sent != modem_result::REFUSED) return false;
    return answer.result == 0 || answer.error == PDC_ERROR_NONE ||
           answer.error == PDC_ERROR_NO_EFFECT;
}

// ---- Connecting

constexpr modem_patience PATIENCE = {
    .attempts = 20,
    .pause_ms = 5000,
    .pauses_after_last = true,
    .note_failure =
        [](modem_result result, int attempt) {
            ALOGE("kbr_client_init returned failure (%d) for PDC, retry times %d",
                  modem_result_number(result), attempt);
        },
};

bool begin_session() {
    const vexa_lock held(g_pdc.mutex);
    g_pdc.remaining_size = 0;
    g_pdc.received_size = 0;
    g_pdc.unasked = {};
    return open_wake_fd(&g_pdc.load) && open_wake_fd(&g_pdc.info);
}

bool is_idl_supported(const kbr_service_object* service, const char* function) {
    uint32_t major = 0;
    uint32_t minor = 0;
    (void)kbr_idl_get_idl_version(service, &major);
    (void)kbr_idl_get_idl_minor_version(service, &minor);
    ALOGI("%s: KBR_PDC IDL version is %d.%d", function, static_cast<int>(major),
          static_cast<int>(minor));
    if (pdc_is_idl_supported(major, minor)) return true;
    ALOGE("%s: KBR_PDC IDL version is too old. Requires %d.%d", function,
          static_cast<int>(PDC_IDL_MAJOR), static_cast<int>(PDC_IDL_MINOR));
    return false;
}

}  // namespace

bool pdc_is_idl_supported(uint32_t major, uint32_t minor) {
    return major > PDC_IDL_MAJOR || (major == PDC_IDL_MAJOR && minor >= PDC_IDL_MINOR);
}

int pdc_kbr_init(const stop_flag& stop) {
    pdc_kbr_clean();
    const kbr_service_object* service = pdc_service();
    if (!begin_session() || !is_idl_supported(service, __func__)) return -1;
    if (modem_client_connect_patiently(&g_link, service, kbr_pdc_unsol_ind_cb, PATIENCE, stop) !=
        modem_result::OK)
        return -1;
    ALOGI("kbr_client_init succeeds for PDC");
    return 0;
}

void pdc_kbr_clean() {
    if (!modem_client_is_connected(&g_link)) return;
    ALOGI("Release client connection to PDC");
    modem_client_release(&g_link);
}

int pdc_get_config_info(const pdc_config_id& id, pdc_config_info* info, uint32_t config_type,
                        const stop_flag& stop) {
    pdc_call call(&g_pdc.info, info);
    if (call.is_refused()) return PDC_BUSY;
    if (id.len > PDC_ID_MAX) return PDC_INVALID_ID;

    const pdc_get_config_info_request request{
        .token_valid = 1, .token = call.token(), .config_type = config_type, .id = id};
    modem_answer answer;
    const modem_result sent = send(PDC_GET_CONFIG_INFO, request, &answer, stop);
    if (!is_info_request_accepted(sent, answer)) {
        ALOGE("kbr send mssage error for get_config_info, errno: %d ", modem_result_number(sent));
        return PDC_FAILED;
    }
    ALOGI("kbr send mssage succ get_config_info, errno: %d ", modem_result_number(sent));

    const int32_t result = wait_for_info(&call, __func__, stop);
    ALOGI("result %d ", result);
    return result;
}

int pdc_load_config_segment(const uint8_t* frame, size_t frame_len, size_t total_size,
                            const pdc_config_id& id, uint32_t config_type, uint32_t* remaining,
                            const stop_flag& stop) {
    pdc_call call(&g_pdc.load);
    if (call.is_refused()) return PDC_BUSY;
    if (id.len > PDC_ID_MAX) return PDC_INVALID_ID;
    if (frame_len > PDC_FRAME_MAX) return PDC_FAILED;

    pdc_load_config_request request{.token_valid = 1,
                                    .token = call.token(),
                                    .config_type = config_type,
                                    .id = id,
                                    .total_size = static_cast<uint32_t>(total_size),
                                    .frame_len = static_cast<uint32_t>(frame_len)};
    memcpy(request.frame, frame, frame_len);
    {
        const vexa_lock held(g_pdc.mutex);
        g_pdc.remaining_size = *remaining;
    }
    modem_answer answer;
    const modem_result sent = modem_verdict(send(PDC_LOAD_CONFIG, request, &answer, stop), answer);
    if (sent != modem_result::OK) {
        ALOGE("kbr send message error for load_configs, errno: %d ", modem_result_number(sent));
        return PDC_FAILED;
    }

    const int32_t result = wait_for_load(&call, __func__, stop);
    const vexa_lock held(g_pdc.mutex);
    *remaining = g_pdc.remaining_size;
    return result;
}

int pdc_load_config_mem(const uint8_t* bytes, size_t size, const pdc_config_id& id,
                        uint32_t config_type, const stop_flag& stop) {
    if (!bytes || size == 0) {
        ALOGE("%s: Invalid param", __func__);
        return -1;
    }
    ALOGI("The MCCBandList data size is %ld", static_cast<long>(size));
    const unique_malloc<uint8_t> frame(static_cast<uint8_t*>(malloc(PDC_FRAME_MAX)));
    if (!frame) {
        ALOGE("%s: Failed to allocate memory", __func__);
        return -1;
    }
    // What the modem last said; the whole until it does.
    auto remaining = static_cast<uint32_t>(size);
    for (size_t sent = 0; sent < size;) {
        const size_t len = std::min(size - sent, PDC_FRAME_MAX);
        memcpy(frame.get(), bytes + sent, len);
        const int result =
            pdc_load_config_segment(frame.get(), len, size, id, config_type, &remaining, stop);
        if (result != 0) {
            ALOGE("Failed to load config segments, result: %d", result);
            return result;
        }
        ALOGI("The remaining size: %d", static_cast<int>(remaining));
        if (remaining == 0) return 0;
        sent += len;
    }
    ALOGI("Reach data end: %d", static_cast<int>(size));
    return 0;
}
