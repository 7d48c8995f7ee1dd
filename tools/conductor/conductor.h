// Conducts a phone in driven time (host/driven_page.h): gives the turn to one thread at a time, and
// moves the clocks on when nobody has anything to do.
//
// A thread that waits is believed to wait only when the kernel says that it sleeps. Nothing but the
// thread that had the turn can have given another one something to do, so once all that wait are
// asleep, the ones that are ready are all there are.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <optional>
#include <random>
#include <string>

#include "base/unique_handle.h"
#include "host/clock_course.h"
#include "host/driven_page.h"

// What else happens in the phone, by its clock.
class conductor_guest {
  public:
    virtual ~conductor_guest() = default;

    // Does what is to be done now, without time passing. Returns whether there was anything.
    virtual bool serve() = 0;

    // The next moment on the boot-time clock at which serve() has something to do, or DRIVEN_NEVER.
    virtual int64_t next_ns() = 0;
};

class conductor {
  public:
    enum class progress {
        MOVED,    // a thread got the turn, a guest did something, or time went on
        BUSY,     // somebody runs
        STALLED,  // everybody waits, and nobody for a moment that will come
    };

    // Makes the page of the phone in `dir`, whose clocks begin at `start`. With a seed, who is
    // ready or due together gets the turn in an order drawn from it. Throws std::system_error.
    conductor(const std::string& dir, const clock_spec& start, std::optional<uint64_t> seed);
    ~conductor();
    conductor(const conductor&) = delete;
    conductor& operator=(const conductor&) = delete;

    // The process that is conducted, as this machine counts it; from now on it is waited for to
    // make itself known.
    void add_process(pid_t pid) { process_ = pid; }

    progress step(conductor_guest* guest);

    // Waits until somebody may have stopped running, for a short while at most.
    void wait_for_moves();

    int64_t boot_ns() const { return page_->boot_ns.load(); }
    int64_t real_ns() const { return page_->real_ns.load(); }

    // Sets the wall clock, while nobody runs; deadlines that go by it move along.
    void set_real_ns(int64_t ns) { page_->real_ns.store(ns); }
    uint64_t steps() const { return steps_; }  // looks at a phone in which nobody ran
    uint64_t wakes() const { return wakes_; }  // times that somebody got the turn

    // Who runs, as text for a message about a phone that does not get on.
    std::string who_runs() const;

  private:
    struct thread_view {
        unique_fd state{};  // of the machine's /proc
        unique_fd alarm{};
        int32_t tid = 0;  // as the phone counts it; 0: nobody is in the slot
        int misses = 0;   // looks at which it was not found
    };

    bool is_turn_free() const;
    bool settles();
    bool is_asleep(size_t index);
    void look_up(size_t index);
    void leave(size_t index);
    void ask_stat_instead();
    progress move_time(conductor_guest* guest);
    void give_turn(size_t index, uint32_t from);
    std::optional<size_t> choose(uint32_t state, int64_t due_ns);
    int64_t deadline_ns(size_t index) const;
    int64_t next_deadline_ns() const;

    std::string dir_;
    bool says_where_;
    driven_page* page_ = nullptr;
    pid_t process_ = 0;
    std::array<thread_view, DRIVEN_SLOTS> views_{};
    std::optional<std::mt19937_64> random_;
    uint32_t seen_moves_ = 0;
    size_t looked_at_ = 0;       // slots, first those that end, then those that wait
    unsigned impatience_ = 0;    // looks at somebody who was not asleep yet
    bool falls_asleep_ = false;  // somebody waits and was not asleep yet at the last look
    uint64_t steps_ = 0;
    uint64_t wakes_ = 0;
    uint64_t wakes_at_move_ = 0;  // when time went on last
};
