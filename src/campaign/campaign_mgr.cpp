#define LOG_TAG "vexastatsd"

#include "campaign/campaign_mgr.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "campaign/campaign_state.h"
#include "campaign/control_socket.h"
#include "framework/config_update.h"
#include "framework/files.h"
#include "framework/unique_handle.h"
#include "framework/wait.h"
#include "framework/watch.h"
#include "platform/log.h"

namespace {

constexpr char DOWNLOAD_DIR[] = "/data/vendor/vexa/down/101";
constexpr char CDF_NAME[] = "cdf.dat";
constexpr char CDF_FILE[] = "/data/vendor/vexa/down/101/cdf.dat";
constexpr char DONE_FILE[] = "/data/vendor/vexa/down/101/cdf.dat.done";

constexpr int64_t RETRY_MS = 30000;
constexpr int64_t SETTLE_MS = 1000;  // in which a writer gets through with its file
constexpr int32_t EXPIRY_MET_S = 10;

// A file that is moved in is as new as one that is created.
constexpr uint32_t FILE_CAME = IN_CREATE | IN_MOVED_TO;
constexpr uint32_t FILE_WENT = IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF;
constexpr uint32_t CDF_EVENTS = IN_MODIFY | FILE_WENT;

// What makes the watch useless or incomplete, beside the file's end.
constexpr uint32_t WATCH_ENDED = IN_IGNORED | IN_UNMOUNT | IN_Q_OVERFLOW;

// For the one wait that looks at the signal descriptor itself.
constinit const stop_flag NEVER_STOPPED;

struct manager {
    unique_fd signal_fd;
    stop_flag stop;  // the signal descriptor, for every other wait of the thread
    unique_fd listener;
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

bool watch_cdf(int notifier) {
    if (inotify_add_watch(notifier, CDF_FILE, CDF_EVENTS) >= 0) return true;
    ALOGE("%s: failed inotify_add_watch. err:%d\n", "campaign_mgr_main", errno);
    return false;
}

// Decodes the campaign file that is there now. Returns its mark as it was before.
config_file_mark decode_cdf() {
    const unique_fd fd(open(CDF_FILE, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd) {
        ALOGE("Failed Reading CDF File %s!! Panic", CDF_FILE);
        return {};
    }
    const config_file_mark mark = config_file_look(fd.get());
    campaign_mgr_decode_and_notify(fd.get(), CDF_FILE);
    return mark;
}

// Decodes what lies at DONE_FILE unless it still is what was decoded before, and deletes it.
void finish_done_file(const config_file_mark& decoded) {
    const unique_fd fd(open(DONE_FILE, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd) return;
    (void)unlink(DONE_FILE);
    if (config_file_look(fd.get()) != decoded) campaign_mgr_decode_and_notify(fd.get(), CDF_FILE);
}

// Deletes the campaign file. It is renamed first and looked at again, so that one that was written
// or put in its place since it was decoded is not lost.
void consume_cdf(const config_file_mark& decoded) {
    if (rename(CDF_FILE, DONE_FILE) == 0) finish_done_file(decoded);
}

// Watches the download directory, and the campaign file where there is one, which is then decoded
// right away and stays. Returns false, logged, when they cannot be watched.
bool begin_watch(int notifier) {
    if (inotify_add_watch(notifier, DOWNLOAD_DIR, FILE_CAME | WATCH_DIR_GONE | IN_ONLYDIR) < 0) {
        ALOGE("%s: failed inotify_add_watch. err:%d\n", "campaign_mgr_main", errno);
        return false;
    }
    struct stat file = {};
    if (stat(CDF_FILE, &file) != 0) return true;
    if (!S_ISREG(file.st_mode)) {
        ALOGE("%s: File not a regular file \n", "campaign_mgr_main");
        return false;
    }
    if (!watch_cdf(notifier)) return false;
    ALOGI("Reading file right away %s\n", CDF_FILE);
    (void)decode_cdf();
    return true;
}

// What a batch of events asks for.
struct watch_news {
    bool process = false;    // the campaign file is new or was written
    bool tear_down = false;  // it went, or the watch is of no use any more
};

void note_created(int notifier, const inotify_event& event, watch_news* news) {
    const char* name = event.len > 0 ? event.name : "";
    ALOGI("Full file name %s\n", CDF_FILE);
    if (strcmp(name, CDF_NAME) != 0) {
        ALOGI("Created %s %s %d\n", name, CDF_NAME, static_cast<int>(event.len));
        return;
    }
    ALOGI("CDF File Created waiting? %d\n", news->process ? 1 : 0);
    (void)watch_cdf(notifier);
    news->process = true;
}

void note_event(int notifier, const inotify_event& event, watch_news* news) {
    ALOGI("Mask %d Len %d\n", static_cast<int>(event.mask), static_cast<int>(event.len));
    ALOGI("Masks 0x%x 0x%x 0x%x 0x%x 0x%x\n", event.mask & IN_CREATE, event.mask & IN_MODIFY,
          event.mask & IN_DELETE, event.mask & IN_DELETE_SELF, event.mask & IN_MOVE_SELF);
    if (event.mask & (FILE_WENT | WATCH_ENDED)) {
        news->tear_down = true;
    } else if (event.mask & FILE_CAME) {
        note_created(notifier, event, news);
    } else if (event.mask & IN_MODIFY) {
        news->process = true;
    } else if (event.len > 0) {
        ALOGI("File Operation %d on %s Not handled\n", static_cast<int>(event.mask), event.name);
    }
}

watch_news read_events(const manager& self, int notifier) {
    ALOGI("%s:CDF file pollin\n", "campaign_mgr_main");
    watch_news news;
    watch_buffer events;
    if (!watch_read(notifier, &events, self.stop)) return {.process = false, .tear_down = true};
    watch_for_each(events, [&](const inotify_event& event) { note_event(notifier, event, &news); });
    return news;
}

void process_cdf(const manager& self) {
    if (!vexastats_sleep_ms(SETTLE_MS, self.stop)) return;
    ALOGI("Full file name %s\n", CDF_FILE);
    consume_cdf(decode_cdf());
}

void serve_client(const manager& self) {
    ALOGI("%s:Socket file pollin\n", "campaign_mgr_main");
    const unique_fd client(accept4(self.listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client) {
        const int error = errno;
        ALOGE("Error while accepting connection err: %s\n", strerror(error));
        // Out of descriptors or memory, the connection stays and would be reported again at once.
        if (error != EAGAIN) vexastats_sleep_ms(SETTLE_MS, self.stop);
    }
    handleIncomingSocketMsg(client.get(), self.stop);
}

// How long the poll may take. A campaign that expires in this very second makes it 0, and the check
// that follows does not compute it anew; from then on it is as long as for an expiry in the past.
int64_t take_timeout_ms() {
    const vexa_lock lock(g_campaign.lock);
    int32_t* next_s = &g_campaign.state.next_activity_s;
    const int32_t timeout_s = *next_s;
    if (timeout_s == 0) *next_s = EXPIRY_MET_S;
    return int64_t{timeout_s} * 1000;
}

pass_end serve(const manager& self, int notifier) {
    for (;;) {
        pollfd fds[] = {{.fd = notifier, .events = POLLIN, .revents = 0},
                        {.fd = self.listener.get(), .events = POLLIN, .revents = 0},
                        {.fd = self.signal_fd.get(), .events = POLLIN, .revents = 0}};
        ALOGI("%s:Going into poll\n", "campaign_mgr_main");
        const int ready = vexastats_poll(fds, 3, take_timeout_ms(), NEVER_STOPPED);
        ALOGI("%s:Coming out of poll %d\n", "campaign_mgr_main", ready);
        if (ready < 0) return retry_later(self);
        if (ready == 0) campaign_check();

        if (fds[0].revents & POLLIN) {
            const watch_news news = read_events(self, notifier);
            if (news.tear_down) return pass_end::AGAIN;
            if (news.process) process_cdf(self);
        }
        if (fds[1].revents & POLLIN) serve_client(self);
        if (fds[2].revents & (POLLIN | POLLERR | POLLHUP)) {
            ALOGI("Recieved Event %d \n", fds[2].revents);
            return pass_end::STOPPED;
        }
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
    const unique_fd notifier(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!notifier) {
        ALOGE("%s: failed inotify_init. err:%d\n", "campaign_mgr_main", errno);
        return retry_later(*self);
    }
    // The directory may have gone since.
    vexastats_wait_dir_ready(DOWNLOAD_DIR, &self->stop);
    if (!begin_watch(notifier.get())) return retry_later(*self);
    return serve(*self, notifier.get());
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
    finish_done_file({});  // of a run that was killed over it
    ALOGI("Waiting Thread\n");

    while (service_pass(&self) == pass_end::AGAIN) {
    }
    ALOGI("Waiting Thread Done\n");
    ALOGI("Campaign Manager Main Thread Exit \n");
    return nullptr;
}
