#define LOG_TAG "vexastatsd"

#include "campaign/campaign_mgr.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "base/unique_handle.h"
#include "campaign/campaign_state.h"
#include "campaign/cdf_delivery.h"
#include "campaign/control_socket.h"
#include "framework/time/clock.h"
#include "framework/time/wait.h"
#include "framework/time/wait_dir.h"
#include "platform/log.h"

namespace {

constexpr char DOWNLOAD_DIR[] = "/data/vendor/vexa/down/101";

constexpr int64_t RETRY_MS = 30000;
constexpr int64_t ACCEPT_FAILURE_PAUSE_MS = 1000;
constexpr int64_t NO_LIMIT_MS = -1;

// For the one wait that looks at the signal descriptor itself.
constinit const stop_flag NEVER_STOPPED;

struct manager {
    unique_fd signal_fd;
    stop_flag stop;  // the signal descriptor, for every other wait of the thread
    unique_fd listener;
    cdf_watch cdf;
    int64_t check_at_ms = NO_LIMIT_MS;  // monotonic clock: when the campaigns are due for a check
};

// A pass of the service loop ends to begin afresh, or with the thread.
enum class pass_end { AGAIN, STOPPED };

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
    self->stop.fd.store(self->signal_fd.get());
    return true;
}

void make_storage_dir() {
    if (mkdir(CAMPAIGN_DIR, 0700) == 0 || errno == EEXIST) return;
    ALOGE("failed to create %s. err:%d\n", CAMPAIGN_DIR, errno);
}

void clear_state() {
    const vexa_lock lock(g_campaign.lock);
    g_campaign.state = {};
}

// Sleeps before the next pass, so that what fails at once does not fail without end.
pass_end retry_later(const manager& self) {
    return vexastats_sleep_ms(RETRY_MS, self.stop) ? pass_end::AGAIN : pass_end::STOPPED;
}

void serve_client(const manager& self) {
    ALOGI("%s:Socket file pollin\n", "campaign_mgr_main");
    const unique_fd client(accept4(self.listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client) {
        const int error = errno;
        ALOGE("Error while accepting connection err: %s\n", strerror(error));
        // Out of descriptors or memory, the connection stays and would be reported again at once.
        if (error != EAGAIN) vexastats_sleep_ms(ACCEPT_FAILURE_PAUSE_MS, self.stop);
    }
    handleIncomingSocketMsg(client.get(), self.stop);
}

int64_t now_ms() {
    return static_cast<int64_t>(vexastats_mono_time_ms());
}

// Every wake-up but the watch's own second try begins the wait for the next check anew.
void schedule_check(manager* self) {
    const int64_t timeout_ms = campaign_take_timeout_ms();
    self->check_at_ms = timeout_ms < 0 ? NO_LIMIT_MS : now_ms() + timeout_ms;
}

// How long the poll may take: until the next check, and while the campaign file cannot be watched
// not longer than until that is tried again.
int64_t poll_timeout_ms(const manager& self) {
    const int64_t retry_ms = self.cdf.complete ? NO_LIMIT_MS : RETRY_MS;
    if (self.check_at_ms < 0) return retry_ms;
    const int64_t check_ms = std::max<int64_t>(self.check_at_ms - now_ms(), 0);
    return retry_ms < 0 ? check_ms : std::min(check_ms, retry_ms);
}

bool check_is_due(const manager& self) {
    return self.check_at_ms >= 0 && now_ms() >= self.check_at_ms;
}

pass_end serve(manager* self) {
    for (;;) {
        enum { CDF, LISTENER, SIGNAL, COUNT };
        pollfd fds[COUNT] = {{.fd = self->cdf.notifier.get(), .events = POLLIN, .revents = 0},
                             {.fd = self->listener.get(), .events = POLLIN, .revents = 0},
                             {.fd = self->signal_fd.get(), .events = POLLIN, .revents = 0}};
        ALOGI("%s:Going into poll\n", "campaign_mgr_main");
        const int ready = vexastats_poll(fds, COUNT, poll_timeout_ms(*self), NEVER_STOPPED);
        ALOGI("%s:Coming out of poll %d\n", "campaign_mgr_main", ready);
        if (ready < 0) return retry_later(*self);
        if (ready == 0 && !check_is_due(*self)) return pass_end::AGAIN;
        if (ready == 0) campaign_check();

        cdf_news news = cdf_news::NONE;
        if (fds[CDF].revents & POLLIN) news = cdf_read_events(&self->cdf, self->stop);
        if (news == cdf_news::PROCESS) cdf_process(self->stop);
        if (fds[LISTENER].revents & POLLIN) serve_client(*self);
        if (fds[SIGNAL].revents & (POLLIN | POLLERR | POLLHUP)) {
            ALOGI("Recieved Event %d \n", fds[SIGNAL].revents);
            return pass_end::STOPPED;
        }
        schedule_check(self);
        const bool try_watch_again = ready == 0 && !self->cdf.complete;
        if (news == cdf_news::WATCH_OVER || try_watch_again) return pass_end::AGAIN;
    }
}

pass_end service_pass(manager* self) {
    if (!self->listener) {
        const int error = control_socket_open(&self->listener);
        if (error != 0) {
            ALOGE("%s: failed create service socket. err:%d\n", "campaign_mgr_main", error);
            return retry_later(*self);
        }
    }
    if (!cdf_watch_begin(&self->cdf)) return retry_later(*self);
    if (self->cdf.complete) schedule_check(self);  // a file that was there has changed the table
    return serve(self);
}

}  // namespace

void* campaign_mgr_main(void*) {
    ALOGI("Campaign Manager Main Thread\n");
    manager self;
    if (!open_signal(&self)) return nullptr;
    vexastats_wait_dir_ready(DOWNLOAD_DIR, &self.stop);
    make_storage_dir();
    clear_state();
    campaign_mgr_load_campaigns_from_storage();
    cdf_finish_interrupted(self.stop);
    ALOGI("Waiting Thread\n");
    schedule_check(&self);

    while (service_pass(&self) == pass_end::AGAIN) {
    }
    ALOGI("Waiting Thread Done\n");
    ALOGI("Campaign Manager Main Thread Exit \n");
    return nullptr;
}
