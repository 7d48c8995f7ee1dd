#define LOG_TAG "vexastatsd-mbl"

#include "collectors/mccbandlist/pdc_kbr.h"

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <utility>

#include "base/sync.h"
#include "base/unique_handle.h"
#include "framework/time/clock.h"
#include "framework/time/wait.h"
#include "modem_client/modem_client.h"
#include "platform/log.h"

namespace {

constexpr uint32_t IDL_MAJOR = 1;
constexpr uint32_t IDL_MINOR = 15;
constexpr uint32_t LIBRARY_VERSION = 6;
constexpr int CONNECT_ATTEMPTS = 20;
constexpr uint32_t CONNECT_TIMEOUT_S = 4;
constexpr int64_t CONNECT_PAUSE_MS = 5000;
constexpr uint32_t REQUEST_TIMEOUT_MS = 10000;
constexpr uint64_t INFO_LIMIT_MS = 10000;

enum pdc_result : int32_t {
    PDC_OK = 0,
    PDC_FAILED = -1,
    PDC_BUSY = -2,
    PDC_FRAME_RESET = -3,
    PDC_INVALID_ID = -4,
    PDC_NO_MEMORY = -5,
    PDC_NONE = -6,
};

// One kind of call: at most one is in progress.
struct pdc_operation {
    int wake_fd = -1;  // eventfd, readable when a waiting caller has its indication
    bool busy = false;
    bool waiting = false;  // the caller sleeps on wake_fd
    bool done = false;     // the indication has come
    int32_t result = 0;
    uint32_t token = 0;                 // of the call in progress
    pdc_config_info* record = nullptr;  // the caller's, during the call
};

struct pdc_client {
    vexa_mutex mutex{};
    const kbr_service_object* service GUARDED_BY(mutex) = nullptr;
    uint32_t last_token GUARDED_BY(mutex) = 0;  // never reset
    pdc_operation load GUARDED_BY(mutex){};
    pdc_operation info GUARDED_BY(mutex){};
    uint32_t remaining_size GUARDED_BY(mutex) = 0;  // last reported by the modem
    uint32_t received_size GUARDED_BY(mutex) = 0;
    pdc_unasked unasked GUARDED_BY(mutex){};
};

pdc_client the_client;
constinit modem_client the_link;

// ---- Calls

// A call in progress from its first step to its last, whatever way it ends.
class pdc_call {
  public:
    explicit pdc_call(pdc_operation* operation, pdc_config_info* record = nullptr)
        : operation_(operation) {
        const vexa_lock held(the_client.mutex);
        refused_ = operation->busy;
        if (refused_) return;
        if (++the_client.last_token == 0) ++the_client.last_token;
        *operation = {.wake_fd = operation->wake_fd,
                      .busy = true,
                      .token = the_client.last_token,
                      .record = record};
        eventfd_t ignored = 0;
        (void)eventfd_read(operation->wake_fd, &ignored);
    }
    ~pdc_call() {
        if (refused_) return;
        const vexa_lock held(the_client.mutex);
        *operation_ = {.wake_fd = operation_->wake_fd};
    }
    pdc_call(const pdc_call&) = delete;
    pdc_call& operator=(const pdc_call&) = delete;

    bool is_refused() const { return refused_; }
    uint32_t token() const {
        const vexa_lock held(the_client.mutex);
        return operation_->token;
    }

    // Whether the indication has yet to be waited for; its arrival then makes the descriptor
    // readable, which lives as long as the process.
    bool begin_wait(int* wake_fd) {
        const vexa_lock held(the_client.mutex);
        operation_->waiting = !operation_->done;
        *wake_fd = operation_->wake_fd;
        return operation_->waiting;
    }
    // Returns the indication's result, or PDC_FAILED with *missing set when there was none.
    int32_t end_wait(bool* missing) {
        const vexa_lock held(the_client.mutex);
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

template <class Request>
int send(uint16_t msg_id, const Request& request, pdc_response* response, const stop_flag& stop) {
    return modem_client_send(&the_link, msg_id, &request, sizeof request, response,
                             sizeof *response, REQUEST_TIMEOUT_MS, stop);
}

// A response is there only when the transport says so.
bool is_info_request_accepted(int sent, const pdc_response& response) {
    if (sent != KBR_OK && sent != KBR_ERR_REFUSED) return false;
    return response.result == 0 || response.error == PDC_ERROR_NONE ||
           response.error == PDC_ERROR_NO_EFFECT;
}

// ---- Indications

void set_done(pdc_operation* operation, int32_t result) {
    operation->result = result;
    if (operation->waiting) (void)eventfd_write(operation->wake_fd, 1);
    operation->done = true;
}

// One that no call in progress has asked for, late or unasked, is nobody's. One that says nothing
// of its call, or that nobody can read, is that of the call in progress.
template <class Indication>
bool is_expected(const pdc_operation& operation, const Indication* indication) {
    if (!operation.busy || operation.done) return false;
    return !indication || !indication->token_valid || indication->token == operation.token;
}

int32_t load_result(const pdc_load_config_indication& indication) {
    switch (indication.error_valid ? indication.error : uint16_t{PDC_ERROR_NONE}) {
        case PDC_ERROR_NONE:
            break;
        case PDC_ERROR_NO_MEMORY:
            ALOGE("no memory in modem EFS");
            return PDC_NO_MEMORY;
        case PDC_ERROR_INVALID_ID:
            ALOGE("Invalid config id, maybe already exists");
            return PDC_INVALID_ID;
        default:
            ALOGE("load configuration error, code = %d", indication.error);
            return PDC_FAILED;
    }
    if (!indication.frame_reset_valid) return PDC_OK;
    ALOGE("PDC frame data is reset");
    return PDC_FRAME_RESET;
}

template <class Indication>
bool reports_error(const Indication* indication) {
    if (!indication || !indication->error_valid || indication->error == PDC_ERROR_NONE)
        return false;
    ALOGE("KBR error, error code: %d", indication->error);
    return true;
}

// Returns whether it fits.
bool copy_id(const pdc_listed_id& from, pdc_config_id* to) {
    if (from.len > PDC_ID_MAX) return false;
    *to = {.len = from.len};
    memcpy(to->bytes, from.bytes, from.len);
    return true;
}

int32_t take_selected(const pdc_selected_config_indication* indication, pdc_config_id* selected) {
    if (!indication || reports_error(indication)) return PDC_FAILED;
    if (indication->active_id_valid)
        return copy_id(indication->active_id, selected) ? PDC_OK : PDC_FAILED;
    if (indication->pending_id_valid) ALOGI("has pending configuration");
    return PDC_NONE;
}

int32_t take_list(const pdc_list_configs_indication* indication, pdc_unasked* unasked) {
    if (!indication || reports_error(indication) || !indication->configs_valid ||
        indication->configs_len > PDC_CONFIGS_MAX)
        return PDC_FAILED;
    if (indication->configs_len == 0) {
        ALOGE("None MBN available in modem EFS");
        return PDC_NONE;
    }
    ALOGI("succeed to get config_list");
    unasked->listed = 0;
    for (uint32_t i = 0; i < indication->configs_len; ++i) {
        if (!copy_id(indication->configs[i], &unasked->list[i])) return PDC_FAILED;
        unasked->listed = i + 1;
    }
    return PDC_OK;
}

void dispatch(uint32_t msg_id, const void* indication) {
    switch (msg_id) {
        case PDC_GET_SELECTED_CONFIG_IND:
            return kbr_pdc_get_selected_config_ind_hdlr(
                static_cast<const pdc_selected_config_indication*>(indication));
        case PDC_LIST_CONFIGS_IND:
            return kbr_pdc_list_configs_ind_hdlr(
                static_cast<const pdc_list_configs_indication*>(indication));
        case PDC_LOAD_CONFIG:
            return kbr_pdc_load_config_ind_hdlr(
                static_cast<const pdc_load_config_indication*>(indication));
        case PDC_GET_CONFIG_INFO:
            return kbr_pdc_get_config_info_ind_hdlr(
                static_cast<const pdc_get_config_info_indication*>(indication));
        default:
            return;
    }
}

// ---- Connecting

bool begin_session(const kbr_service_object* service) {
    const vexa_lock held(the_client.mutex);
    the_client.service = service;
    the_client.remaining_size = 0;
    the_client.received_size = 0;
    the_client.unasked = {};
    return open_wake_fd(&the_client.load) && open_wake_fd(&the_client.info);
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
          static_cast<int>(IDL_MAJOR), static_cast<int>(IDL_MINOR));
    return false;
}

}  // namespace

bool pdc_is_idl_supported(uint32_t major, uint32_t minor) {
    return major > IDL_MAJOR || (major == IDL_MAJOR && minor >= IDL_MINOR);
}

int pdc_kbr_init(const stop_flag& stop) {
    pdc_kbr_clean();
    const kbr_service_object* service =
        pdc_get_service_object_internal_v01(IDL_MAJOR, IDL_MINOR, LIBRARY_VERSION);
    if (!begin_session(service) || !is_idl_supported(service, __func__)) return -1;
    for (int i = 0; i < CONNECT_ATTEMPTS && !stop_flag_is_raised(stop); ++i) {
        const int error =
            modem_client_connect(&the_link, service, kbr_pdc_unsol_ind_cb, CONNECT_TIMEOUT_S, stop);
        if (error == KBR_OK) {
            ALOGI("kbr_client_init succeeds for PDC");
            return 0;
        }
        ALOGE("kbr_client_init returned failure (%d) for PDC, retry times %d", error, i);
        vexastats_sleep_ms(CONNECT_PAUSE_MS, stop);
    }
    return -1;
}

void pdc_kbr_clean() {
    if (!modem_client_is_connected(&the_link)) return;
    ALOGI("Release client connection to PDC");
    modem_client_release(&the_link);
}

int pdc_get_config_info(const pdc_config_id& id, pdc_config_info* info, uint32_t config_type,
                        const stop_flag& stop) {
    pdc_call call(&the_client.info, info);
    if (call.is_refused()) return PDC_BUSY;
    if (id.len > PDC_ID_MAX) return PDC_INVALID_ID;

    const pdc_get_config_info_request request{
        .token_valid = 1, .token = call.token(), .config_type = config_type, .id = id};
    pdc_response response;
    const int sent = send(PDC_GET_CONFIG_INFO, request, &response, stop);
    if (!is_info_request_accepted(sent, response)) {
        ALOGE("kbr send mssage error for get_config_info, errno: %d ", sent);
        return PDC_FAILED;
    }
    ALOGI("kbr send mssage succ get_config_info, errno: %d ", sent);

    pollfd wake{.fd = -1, .events = POLLIN, .revents = 0};
    int ready = 1;
    if (call.begin_wait(&wake.fd)) {
        ALOGI("%s : waiting pdc_get_info_cond ", __func__);
        const auto until_ms = static_cast<int64_t>(vexastats_real_time_ms() + INFO_LIMIT_MS);
        ready = vexastats_poll_until(&wake, 1, until_ms, stop);
    }
    bool missing = false;
    const int32_t result = call.end_wait(&missing);
    if (missing) ALOGE("%s : pdc_get_info_cond exit with %d", __func__, wait_error(ready));
    ALOGI("result %d ", result);
    return result;
}

int pdc_load_config_segment(const uint8_t* frame, size_t frame_len, size_t total_size,
                            const pdc_config_id& id, uint32_t config_type, uint32_t* remaining,
                            const stop_flag& stop) {
    pdc_call call(&the_client.load);
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
        const vexa_lock held(the_client.mutex);
        the_client.remaining_size = *remaining;
    }
    pdc_response response;
    int sent = send(PDC_LOAD_CONFIG, request, &response, stop);
    // A library may hand a refusal over as a response only.
    if (sent == KBR_OK && response.result != 0) sent = KBR_ERR_REFUSED;
    if (sent != KBR_OK) {
        ALOGE("kbr send message error for load_configs, errno: %d ", sent);
        return PDC_FAILED;
    }

    pollfd wake{.fd = -1, .events = POLLIN, .revents = 0};
    int ready = 1;
    if (call.begin_wait(&wake.fd)) ready = vexastats_poll(&wake, 1, PDC_LOAD_LIMIT_MS, stop);
    bool missing = false;
    const int32_t result = call.end_wait(&missing);
    if (missing) ALOGE("%s : pdc_load_config_cond exit with %d", __func__, wait_error(ready));
    const vexa_lock held(the_client.mutex);
    *remaining = the_client.remaining_size;
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

void kbr_pdc_unsol_ind_cb(kbr_client* client, uint32_t msg_id, void* buf, uint32_t len, void*) {
    ALOGI("%s ", __func__);
    const kbr_service_object* service = nullptr;
    {
        const vexa_lock held(the_client.mutex);
        service = the_client.service;
    }
    uint32_t size = 0;
    if (kbr_idl_get_message_c_struct_len(service, KBR_INDICATION, msg_id, &size) != KBR_OK) {
        ALOGE("failed to get message c_struct len");
        return;
    }
    const unique_malloc<void> payload(calloc(1, size));
    if (!payload) {
        ALOGE("failed to allocate memory for payload");
        dispatch(msg_id, nullptr);
        return;
    }
    if (kbr_client_message_decode(client, KBR_INDICATION, msg_id, buf, len, payload.get(), size) !=
        KBR_OK) {
        ALOGE("failed to decode kbr message, msg_id: 0x%02x", msg_id);
        dispatch(msg_id, nullptr);  // whoever waits for it waits no longer
        return;
    }
    dispatch(msg_id, payload.get());
}

void kbr_pdc_get_config_info_ind_hdlr(const pdc_get_config_info_indication* indication) {
    const vexa_lock held(the_client.mutex);
    pdc_operation& info = the_client.info;
    if (!indication) {
        ALOGE("NULL pointer for ind_data_ptr");
        if (is_expected(info, indication)) set_done(&info, PDC_FAILED);
        return;
    }
    const uint32_t len = std::min<uint32_t>(indication->config_header_len, PDC_CONFIG_HEADER_MAX);
    ALOGI("%s: config_header_valid [%d]", __func__, indication->config_header_valid);
    ALOGI("%s: config_header_len [%d]", __func__, static_cast<int>(len));
    if (!is_expected(info, indication)) return;
    if (indication->config_header_valid && info.record) {
        *info.record = {.header_valid = 1, .header_len = len};
        memcpy(info.record->header, indication->config_header, len);
    }
    set_done(&info, PDC_OK);
}

void kbr_pdc_load_config_ind_hdlr(const pdc_load_config_indication* indication) {
    ALOGI("%s ", __func__);
    int32_t result = PDC_FAILED;
    if (indication) {
        result = load_result(*indication);
    } else {
        ALOGE("NULL pointer for ind_dat_ptr");
    }
    const vexa_lock held(the_client.mutex);
    pdc_operation& load = the_client.load;
    if (!is_expected(load, indication)) return;
    if (result == PDC_OK && indication->remaining_size_valid)
        the_client.remaining_size = indication->remaining_size;
    if (result == PDC_OK && indication->received_size_valid)
        the_client.received_size = indication->received_size;
    set_done(&load, result);
}

// Nobody in this daemon waits for the following two.

void kbr_pdc_get_selected_config_ind_hdlr(const pdc_selected_config_indication* indication) {
    const vexa_lock held(the_client.mutex);
    the_client.unasked.selected_result = take_selected(indication, &the_client.unasked.selected);
}

void kbr_pdc_list_configs_ind_hdlr(const pdc_list_configs_indication* indication) {
    const vexa_lock held(the_client.mutex);
    the_client.unasked.list_result = take_list(indication, &the_client.unasked);
}

pdc_unasked pdc_kbr_unasked() {
    const vexa_lock held(the_client.mutex);
    return the_client.unasked;
}
