#define LOG_TAG "vexastatsd"

#include "campaign/campaign_mgr.h"

#include <errno.h>
#include <signal.h>
#include <sys/signalfd.h>

#include <algorithm>

#include "base/unique_handle.h"
#include "campaign/campaign_activity.h"
#include "campaign/campaign_storage.h"
#include "campaign/campaign_switch.h"
#include "campaign/campaign_table.h"
#include "campaign/cdf_delivery.h"
#include "campaign/control_socket.h"
#include "framework/time/clock.h"
#include "framework/time/wait.h"
#include "framework/time/wait_dir.h"
#include "mps_events/mps_campaign_board.h"
#include "platform/log.h"

namespace {

constexpr int64_t RETRY_MS = 30000;
constexpr int64_t NEVER = INT64_MAX;

// For the one wait that looks at the signal descriptor itself.
constinit const stop_flag NEVER_STOPPED;

struct manager {
    unique_fd signal_fd;
    stop_flag stop;  // the signal descriptor, for every other wait of the thread
    control_server control;
    cdf_watch cdf;
    // Monotonic clock: when the campaigns are due for a check, and the file's watch for a new try.
    int64_t check_at_ms = NEVER;
    int64_t watch_again_at_ms = NEVER;
};

// What follows a pass: another one, or the thread's end.
enum class next_pass { AGAIN, END };

// SIGUSR1 stays pending until the end: its descriptor, once readable, ends every wait. Returns
// false, logged, when it cannot be had.
bool open_signal(manager* self) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    const int error = pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    if (error != 0) {
        ALOGE("%s: failed to block signal. err:%d\n", "campaign_mgr_main", error);
        return false;
    }
    self->signal_fd.reset(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!self->signal_fd) {
        ALOGE("%s: failed to open signalfd. err:%d\n", "campaign_mgr_main", errno);
        return false;
    }
    stop_flag_by_signal(&self->stop, self->signal_fd.get());
    return true;
}

// For the modem statistics collector, in its thread.
void write_mps_board(mps_campaign_board* board) {
    campaign_mgr_get_campaign(CAMPAIGN_MPS_MODULE, &board->logic, &board->campaign_id);
    (void)campaign_mgr_get_ph_info(&board->phone);
}

// Sleeps before the next pass, so that what fails at once does not fail without end.
next_pass retry_later(const manager& self) {
    return vexastats_sleep_ms(RETRY_MS, self.stop) ? next_pass::AGAIN : next_pass::END;
}

int64_t now_ms() {
    return static_cast<int64_t>(vexastats_mono_time_ms());
}

// A check, news of the file and a client's good message begin the wait for the next check anew.
void schedule_check(manager* self) {
    const int64_t timeout_ms = campaign_take_timeout_ms();
    self->check_at_ms = timeout_ms < 0 ? NEVER : now_ms() + timeout_ms;
}

enum poll_place { CDF, SIGNAL, CONTROL, POLL_FDS = CONTROL + CONTROL_POLL_FDS };
static_assert(POLL_FDS <= VEXASTATS_POLL_MAX_FDS);

// What ended a wait.
struct wake_up {
    pollfd fds[POLL_FDS] = {};
    int ready = 0;  // what the poll returned
    bool check_is_due = false;
    bool watch_is_due = false;
    bool client_came = false;  // one that is worth a word

    bool came(poll_place place) const { return fds[place].revents != 0; }
    bool is_quiet() const {
        return ready >= 0 && !check_is_due && !watch_is_due && !client_came && !came(CDF) &&
               !came(SIGNAL);
    }
};

// Waits until there are news or something is due, and takes what the clients have sent.
wake_up wait_for_news(manager* self) {
    wake_up news;
    pollfd* fds = news.fds;
    fds[CDF] = {.fd = self->cdf.notifier.get(), .events = POLLIN, .revents = 0};
    fds[SIGNAL] = {.fd = self->signal_fd.get(), .events = POLLIN, .revents = 0};
    const int64_t control_at_ms = control_socket_watch(self->control, fds + CONTROL);
    const int64_t due_ms = std::min({self->check_at_ms, self->watch_again_at_ms, control_at_ms});
    const int64_t timeout_ms = due_ms == NEVER ? -1 : std::max<int64_t>(due_ms - now_ms(), 0);
    news.ready = vexastats_poll(fds, POLL_FDS, timeout_ms, NEVER_STOPPED);
    news.check_is_due = now_ms() >= self->check_at_ms;
    news.watch_is_due = now_ms() >= self->watch_again_at_ms;
    const bool listener_ready = (fds[CONTROL + CONTROL_LISTENER].revents & POLLIN) != 0;
    news.client_came = control_socket_receive(&self->control, listener_ready);
    return news;
}

next_pass serve(manager* self) {
    bool is_quiet = false;  // the last wake-up was a client's, and not worth a word
    for (;;) {
        if (!is_quiet) ALOGI("%s:Going into poll\n", "campaign_mgr_main");
        const wake_up news = wait_for_news(self);
        is_quiet = news.is_quiet();
        if (!is_quiet) ALOGI("%s:Coming out of poll %d\n", "campaign_mgr_main", news.ready);
        if (news.ready < 0) return retry_later(*self);
        if (news.check_is_due) campaign_check();  // hours and days end here, and expiries

        cdf_news file = cdf_news::NONE;
        if (news.fds[CDF].revents & POLLIN) file = cdf_read_events(&self->cdf, self->stop);
        if (file == cdf_news::PROCESS) cdf_process(self->stop);
        const bool was_told = control_socket_act(&self->control);
        if (news.fds[SIGNAL].revents & (POLLIN | POLLERR | POLLHUP)) {
            ALOGI("Recieved Event %d \n", news.fds[SIGNAL].revents);
            return next_pass::END;
        }
        if (news.check_is_due || was_told || news.came(CDF)) schedule_check(self);
        if (file == cdf_news::WATCH_OVER || news.watch_is_due) return next_pass::AGAIN;
    }
}

next_pass service_pass(manager* self) {
    if (!self->control.listener) {
        const int error = control_socket_open(&self->control.listener);
        if (error != 0) {
            ALOGE("%s: failed create service socket. err:%d\n", "campaign_mgr_main", error);
            return retry_later(*self);
        }
    }
    if (!cdf_watch_begin(&self->cdf, self->stop)) return retry_later(*self);
    self->watch_again_at_ms = self->cdf.complete ? NEVER : now_ms() + RETRY_MS;
    if (self->cdf.complete) schedule_check(self);  // a file that was there has changed the table
    return serve(self);
}

}  // namespace

void* campaign_mgr_main(void*) {
    ALOGI("Campaign Manager Main Thread\n");
    manager self;
    if (!open_signal(&self)) return nullptr;
    vexastats_wait_dir_ready(CDF_DIR, &self.stop);
    campaign_storage_make_dir();
    campaign_table_clear();
    mps_board_written_by(write_mps_board);
    campaign_mgr_load_campaigns_from_storage();
    cdf_finish_interrupted(self.stop);
    ALOGI("Waiting Thread\n");
    schedule_check(&self);

    while (service_pass(&self) == next_pass::AGAIN) {
    }
    control_socket_end(&self.control);
    ALOGI("Waiting Thread Done\n");
    ALOGI("Campaign Manager Main Thread Exit \n");
    return nullptr;
}
