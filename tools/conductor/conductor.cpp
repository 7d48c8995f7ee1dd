#include "conductor/conductor.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <new>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace {

namespace fs = std::filesystem;

// Looks before it sleeps: most threads run for less.
constexpr unsigned SPINS = 8;
constexpr unsigned FALL_ASLEEP_US = 20;
constexpr long SLEEP_NS = 1000000;
constexpr int MISSES_MAX = 10;
constexpr unsigned IMPATIENCE_MAX = 50000;
constexpr uint64_t WAKES_PER_MOMENT_MAX = 1000000;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

std::string alarm_name(size_t index) {
    return "alarm" + std::to_string(index);
}

// Whether /proc/PID/task/TID/wchan tells where in the kernel a thread sleeps, and so that it does.
// It costs less than half of what stat does, but may be closed to the likes of this process.
bool kernel_says_where() {
    const pid_t child = fork();
    if (child < 0) return false;
    if (child == 0) {
        for (;;) pause();
    }
    char text[64];
    ssize_t len = 0;
    for (int look = 0; look < 100 && len <= 1; ++look) {
        usleep(1000);
        std::ifstream wchan("/proc/" + std::to_string(child) + "/wchan");
        if (!wchan) break;
        wchan.read(text, sizeof text);
        len = wchan.gcount();
    }
    kill(child, SIGKILL);
    (void)waitpid(child, nullptr, 0);
    return len > 1;
}

// The thread's number in the innermost namespace that it is in, which is the phone's; 0: it has
// gone.
int32_t inner_tid(const fs::path& task) {
    std::ifstream status(task / "status");
    for (std::string line; std::getline(status, line);) {
        if (!line.starts_with("NSpid:")) continue;
        std::istringstream words(line.substr(6));
        int32_t tid = 0;
        for (int32_t next = 0; words >> next;) tid = next;
        return tid;
    }
    return 0;
}

}  // namespace

conductor::conductor(const std::string& dir, const clock_spec& start, std::optional<uint64_t> seed)
    : dir_(dir + DRIVEN_DIR), says_where_(kernel_says_where()) {
    if (seed) random_.emplace(*seed);
    fs::remove_all(dir_);
    fs::create_directory(dir_);
    for (size_t i = 0; i < DRIVEN_SLOTS; ++i) {
        const std::string path = dir_ + "/" + alarm_name(i);
        if (mkfifo(path.c_str(), 0666) != 0) fail(path);
        views_[i].alarm.reset(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
        if (!views_[i].alarm) fail(path);
    }
    const std::string path = dir_ + "/" + DRIVEN_PAGE;
    const unique_fd fd(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!fd || ftruncate(fd.get(), sizeof(driven_page)) != 0) fail(path);
    void* memory =
        mmap(nullptr, sizeof(driven_page), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (memory == MAP_FAILED) fail(path);
    page_ = new (memory) driven_page{};
    page_->boot_ns.store(start.boot_ns.value_or(NS_PER_S));
    page_->real_ns.store(start.real_ns.value_or(1700000000 * NS_PER_S));
    page_->shuffle_seed.store(seed.value_or(0));
    page_->magic.store(DRIVEN_MAGIC);
}

conductor::~conductor() {
    (void)munmap(page_, sizeof(driven_page));
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
}

// ---- Who sleeps

void conductor::look_up(size_t index) {
    thread_view& view = views_[index];
    view.tid = page_->slots[index].tid.load();
    view.state.reset();
    std::error_code ignored;
    const fs::path tasks = "/proc/" + std::to_string(process_) + "/task";
    for (const auto& task : fs::directory_iterator(tasks, ignored)) {
        if (inner_tid(task.path()) != view.tid) continue;
        const fs::path state = task.path() / (says_where_ ? "wchan" : "stat");
        view.state.reset(open(state.c_str(), O_RDONLY | O_CLOEXEC));
        view.misses = 0;
        return;
    }
    const int32_t pid = inner_tid("/proc/" + std::to_string(process_));
    if (pid != 0 && pid != page_->slots[index].pid.load())
        throw std::runtime_error("only the command itself can be driven, not what it starts");
}

// The kernel may keep to itself where the daemon's threads sleep, though not where a child does.
void conductor::ask_stat_instead() {
    says_where_ = false;
    for (thread_view& view : views_) view.tid = 0;
}

void conductor::leave(size_t index) {
    page_->slots[index].state.store(DRIVEN_FREE);
    views_[index].tid = 0;
    views_[index].misses = 0;
    views_[index].state.reset();
}

// A thread that has gone leaves its slot.
bool conductor::is_asleep(size_t index) {
    const driven_slot& slot = page_->slots[index];
    if (views_[index].tid != slot.tid.load()) look_up(index);
    // The list of threads may lack one that is there while another one goes: look again.
    if (!views_[index].state) {
        if (++views_[index].misses < MISSES_MAX) look_up(index);
        if (!views_[index].state && views_[index].misses < MISSES_MAX) return false;
    }
    char text[512];
    const ssize_t len = pread(views_[index].state.get(), text, sizeof text - 1, 0);
    if (len <= 0) {
        leave(index);
        return true;
    }
    if (slot.state.load() != DRIVEN_WAITING) return false;
    if (says_where_) return len > 1 || text[0] != '0';
    text[len] = '\0';
    const char* name_end = strrchr(text, ')');
    return name_end && strncmp(name_end, ") S", 3) == 0;
}

// Whether nobody has the turn or is about to come for it.
bool conductor::is_turn_free() const {
    bool known = process_ == 0;
    for (const driven_slot& slot : page_->slots) {
        const uint32_t state = slot.state.load();
        if (state == DRIVEN_STARTING || state == DRIVEN_RUNNING) return false;
        known = known || state != DRIVEN_FREE;
    }
    return known;
}

// Whether nobody runs, and all who wait are asleep. Only once the turn is free does a thread that
// was seen asleep stay so.
bool conductor::settles() {
    if (!is_turn_free()) return false;
    // The ones that end first: whoever joins one is woken as it goes. Who was found asleep stays so
    // until somebody gets the turn.
    for (; looked_at_ < 2 * DRIVEN_SLOTS; ++looked_at_) {
        const size_t index = looked_at_ % DRIVEN_SLOTS;
        const uint32_t wanted = looked_at_ < DRIVEN_SLOTS ? DRIVEN_ENDING : DRIVEN_WAITING;
        if (page_->slots[index].state.load() != wanted) continue;
        falls_asleep_ = !is_asleep(index);
        if (falls_asleep_) return false;
    }
    looked_at_ = 0;
    impatience_ = 0;
    return true;
}

// ---- Whose turn it is

int64_t conductor::deadline_ns(size_t index) const {
    const driven_slot& slot = page_->slots[index];
    const int64_t deadline = slot.deadline_ns.load();
    if (deadline == DRIVEN_NEVER || !slot.is_wall_clock.load()) return deadline;
    int64_t left = 0;
    int64_t boot = 0;
    if (__builtin_sub_overflow(deadline, real_ns(), &left) ||
        __builtin_add_overflow(boot_ns(), left, &boot))
        return DRIVEN_NEVER;
    return boot;
}

// A slot in this state whose deadline is not later than due_ns: the first, or one by chance.
std::optional<size_t> conductor::choose(uint32_t state, int64_t due_ns) {
    std::vector<size_t> all;
    for (size_t i = 0; i < DRIVEN_SLOTS; ++i) {
        if (page_->slots[i].state.load() != state) continue;
        if (state == DRIVEN_READY || deadline_ns(i) <= due_ns) all.push_back(i);
    }
    if (all.empty()) return {};
    return all[random_ ? (*random_)() % all.size() : 0];
}

int64_t conductor::next_deadline_ns() const {
    int64_t next = DRIVEN_NEVER;
    for (size_t i = 0; i < DRIVEN_SLOTS; ++i) {
        if (page_->slots[i].state.load() == DRIVEN_WAITING) next = std::min(next, deadline_ns(i));
    }
    return next;
}

void conductor::give_turn(size_t index, uint32_t from) {
    driven_slot& slot = page_->slots[index];
    // It may have become ready by itself just now, by somebody from outside the phone.
    if (!slot.state.compare_exchange_strong(from, DRIVEN_RUNNING)) return;
    if (++wakes_ - wakes_at_move_ > WAKES_PER_MOMENT_MAX)
        throw std::runtime_error("time stands still, since somebody never waits:" + who_runs());
    slot.turn.store(1);
    (void)syscall(SYS_futex, &slot.turn, FUTEX_WAKE, 1, nullptr, nullptr, 0);
    if (from == DRIVEN_WAITING) (void)!write(views_[index].alarm.get(), "", 1);
}

conductor::progress conductor::step(conductor_guest* guest) {
    seen_moves_ = page_->moves.load();
    if (!settles()) return progress::BUSY;
    ++steps_;
    if (const auto ready = choose(DRIVEN_READY, 0)) {
        give_turn(*ready, DRIVEN_READY);
        return progress::MOVED;
    }
    if (!is_turn_free()) return progress::BUSY;  // the last thread went as it was looked at
    return move_time(guest);
}

// Nobody runs, and nobody can until the guest has done something or a deadline has come.
conductor::progress conductor::move_time(conductor_guest* guest) {
    for (;;) {
        if (guest->serve()) return progress::MOVED;
        const int64_t now = boot_ns();
        if (const auto due = choose(DRIVEN_WAITING, now)) {
            give_turn(*due, DRIVEN_WAITING);
            return progress::MOVED;
        }
        const int64_t next = std::min(next_deadline_ns(), guest->next_ns());
        if (next == DRIVEN_NEVER) return progress::STALLED;
        page_->real_ns.store(real_ns() + (next - now));
        page_->boot_ns.store(next);
        wakes_at_move_ = wakes_;
    }
}

void conductor::wait_for_moves() {
    if (falls_asleep_) {  // that takes no longer than the call which it is about to make
        falls_asleep_ = false;
        if (++impatience_ % SPINS == 0) usleep(FALL_ASLEEP_US);
        if (says_where_ && impatience_ > IMPATIENCE_MAX) ask_stat_instead();
        return;
    }
    for (unsigned i = 0; i < 100 * SPINS; ++i) {
        if (page_->moves.load() != seen_moves_) return;
    }
    const timespec limit = {.tv_sec = 0, .tv_nsec = SLEEP_NS};
    (void)syscall(SYS_futex, &page_->moves, FUTEX_WAIT, seen_moves_, &limit, nullptr, 0);
}

std::string conductor::who_runs() const {
    static constexpr const char* NAMES[] = {"free",  "starting", "waiting",
                                            "ready", "running",  "ending"};
    std::string text;
    for (size_t i = 0; i < DRIVEN_SLOTS; ++i) {
        const uint32_t state = page_->slots[i].state.load();
        if (state == DRIVEN_FREE) continue;
        text += " " + std::to_string(i) + ":" + (state < 6 ? NAMES[state] : "?");
    }
    return text;
}
