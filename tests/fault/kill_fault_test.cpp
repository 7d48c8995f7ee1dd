// A process that appends and hands over is killed before every single call it makes on files, and
// its restart before every call of its own: no sample comes twice, and none is lost but the one
// that was being appended.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <new>

#include "fault/fault.h"
#include "support/record_phone.h"

namespace {

constexpr int SAMPLES = 16;  // of all processes of a round

// A fork costs a sanitizer's process tens of milliseconds: there, every restart is killed before
// every seventh of its calls, beginning with another one each time.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr long STRIDE = 7;
#else
constexpr long STRIDE = 1;
#endif

enum sample_state : int { NEVER, BEGUN, APPENDED };

// What the processes of a round have done, for the one that looks on.
struct shared_samples {
    std::atomic<int> next{0};
    std::atomic<int> state[SAMPLES] = {};
};

std::string sample_text(int number) {
    return "<" + std::to_string(number) + ">";
}

class KillTest : public testing::Test, protected record_phone {
  protected:
    KillTest() {
        void* memory = mmap(nullptr, sizeof(shared_samples), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(memory, MAP_FAILED);
        samples = new (memory) shared_samples;
    }
    ~KillTest() override { munmap(samples, sizeof *samples); }

    void begin_round() {
        reset();
        new (samples) shared_samples;
    }

    void sample(uint32_t flags = 0) {
        const int number = samples->next++;
        samples->state[number] = BEGUN;
        const std::string text = sample_text(number);
        if (append(text, flags) == text.size()) samples->state[number] = APPENDED;
        platform_test_advance_ms(1500);
    }

    // Begins, appends, hands over and goes on; then hands over and begins afresh.
    void live(bool resume) {
        begin(resume);
        sample();
        sample(WRITE_DROP | WRITE_BEGIN_NEW);
        sample(WRITE_DROP);
        begin(resume);
    }

    void live_again(bool resume) {
        begin(resume);
        sample(WRITE_DROP);
    }

    // Runs `life` in a child that is killed before its n-th call. Returns whether it came as far.
    template <class Life>
    bool killed_before(long n, Life life) {
        platform_test_advance_ms(60000);
        fault_arm_kill(n);
        const pid_t child = fork();
        if (child == 0) {
            life();
            _exit(0);
        }
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        fault_disarm();
        if (WIFSIGNALED(status)) {
            EXPECT_EQ(WTERMSIG(status), SIGKILL);
        }
        return WIFSIGNALED(status);
    }

    // A last run that is left alone; then all that was collected is in the dropbox.
    std::string everything() {
        platform_test_advance_ms(60000);
        begin(false);
        vexastats_record_close(&handle);
        std::string text;
        for (const std::string& payload : dropbox_payloads(UP)) text += payload;
        return text;
    }

    void expect_each_sample_once() {
        const std::string text = everything();
        for (int i = 0; i < samples->next; i++) {
            size_t count = 0;
            const std::string sample = sample_text(i);
            for (size_t at = text.find(sample); at != text.npos; at = text.find(sample, at + 1)) {
                count++;
            }
            EXPECT_LE(count, 1u) << "sample " << i << " in " << text;
            if (samples->state[i] == APPENDED) {
                EXPECT_EQ(count, 1u) << "sample " << i << " in " << text;
            }
        }
        for (const std::string& name : list_dir(OWN)) {
            EXPECT_TRUE(name == "teststats.tmp" || name.find(".seq") != name.npos) << name;
        }
    }

    shared_samples* samples = nullptr;
};

TEST_F(KillTest, NoSampleIsLostOrComesTwice) {
    for (const bool resume : {false, true}) {
        bool killed = true;
        for (long first = 1; killed; first++) {
            bool killed_again = true;
            for (long second = 1 + first % STRIDE; killed && killed_again; second += STRIDE) {
                SCOPED_TRACE(testing::Message()
                             << "killed before call " << first << ", the restart before " << second
                             << (resume ? ", resuming" : ""));
                begin_round();
                killed = killed_before(first, [&] { live(resume); });
                killed_again = killed_before(second, [&] { live_again(resume); });
                expect_each_sample_once();
                ASSERT_FALSE(HasFailure());
            }
        }
    }
}

}  // namespace
