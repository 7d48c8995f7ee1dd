// Appending, rolling over, beginning and loading with every single call failing once: nothing
// half-made is seen outside, no descriptor stays open, and the next try works.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "fault/fault.h"
#include "support/record_phone.h"

namespace fs = std::filesystem;

namespace {

size_t open_descriptors() {
    return list_dir("/proc/self/fd").size();
}

class FrameworkFaultTest : public testing::Test, protected record_phone {
  protected:
    // How often the text was collected: in the dropbox once a clean run has delivered everything.
    size_t times_delivered(const std::string& text) {
        EXPECT_TRUE(begin());
        vexastats_record_close(&handle);
        size_t count = 0;
        for (const std::string& payload : dropbox_payloads(UP))
            for (size_t at = 0; (at = payload.find(text, at)) != payload.npos; at++) count++;
        return count;
    }

    // Runs `prepare`, then `act` with the n-th call of `name` failing, then `check`. Returns
    // whether there was such a call.
    template <class Prepare, class Act, class Check>
    bool fail_call(const char* name, long n, Prepare prepare, Act act, Check check) {
        SCOPED_TRACE(testing::Message() << "call " << n << " of " << name);
        reset();
        prepare();
        const size_t descriptors = open_descriptors() - (handle.file ? 1 : 0);
        fault_arm(name, n);
        act();
        const bool failed = fault_disarm();
        EXPECT_EQ(open_descriptors() - (handle.file ? 1 : 0), descriptors);
        EXPECT_NO_THROW(dropbox());
        check(name);
        logged += log();
        EXPECT_TRUE(handle.file || begin()) << "the next try must work";
        EXPECT_EQ(append("afterwards"), 10u);
        EXPECT_NO_THROW(dropbox());
        return failed;
    }

    template <class Prepare, class Act, class Check>
    void fail_every_call(Prepare prepare, Act act, Check check) {
        for (const char* name : fault_calls()) {
            for (long n = 1; fail_call(name, n, prepare, act, check); n++) {
                if (HasFailure()) return;
            }
        }
    }

    void expect_errors(std::initializer_list<const char*> texts) const {
        for (const char* text : texts)
            EXPECT_TRUE(logged.find(std::string("E vexastatsd: ") + text) != logged.npos)
                << "never logged: " << text;
    }

    std::string logged;  // over all n
};

// What a hand-over does to files, in its order: whole on the disk before anything is deleted, and
// seen by others only then.
TEST_F(FrameworkFaultTest, HandOverSyncsThenDeletesThenRenames) {
    ASSERT_TRUE(begin());
    ASSERT_EQ(append("data"), 4u);
    fault_trace_begin();
    ASSERT_EQ(drop(), 0u);
    EXPECT_EQ(fault_trace_end(),
              "fsync teststats.seq.new\nrename teststats.seq\n"
              "fsync teststats.1700000000000\nremove teststats.tmp\n"
              "rename teststats.1700000000000\n");
}

TEST_F(FrameworkFaultTest, FailedAppendLeavesNoHalfSample) {
    std::string before;
    size_t count = 0;
    fail_every_call(
        [&] {
            ASSERT_TRUE(begin());
            ASSERT_EQ(append("before"), 6u);
            before = record();
        },
        [&] { count = append("0123456789"); },
        [&](const std::string& failed) {
            if (failed == "ftruncate") return;
            EXPECT_EQ(record(), count == 10 ? before + "0123456789" : before);
        });
    expect_errors({"vexastats_write_file: failed to write file\n",
                   "vexastats_write_file: failed to flush. err:28\n",
                   "vexastats_write_file fseek failed. err:5\n"});
}

TEST_F(FrameworkFaultTest, FailedHandOverKeepsTheRecordUntilItsUploadIsSafe) {
    size_t count = 0;
    fail_every_call(
        [&] {
            ASSERT_TRUE(begin());
            ASSERT_EQ(append("before"), 6u);
        },
        [&] { count = append("after", WRITE_DROP | WRITE_BEGIN_NEW); },
        [&](const std::string& failed) {
            if (dropbox().empty()) {
                EXPECT_NE(count, 5u) << failed;
            }
            EXPECT_EQ(times_delivered("before"), 1u) << failed;
        });
    expect_errors({"failed to prepend header ", "failed to compress\n",
                   "deflateInit2 failed. err:-4\n", "vexastats_compress: fwrite failed.\n",
                   "failed to write header test_collector. cnt:26\n", "failed to flush. err:28\n",
                   "prepend_header fseek failed. err:5\n",
                   "failed to move file. err:", "move_to_dropbox: failed to open ",
                   "failed to remove ", "failed to create new record.\n",
                   "failed to write timestamp\n", "create_new_record: failed to flush. err:28\n",
                   "failed to move /data/vendor/vexastats/7/teststats."});
}

TEST_F(FrameworkFaultTest, FailedMeasureFailsTheAppendOrFallsBack) {
    const std::string noise = [] {
        std::string text;
        for (unsigned x = 1; text.size() < 3000; x = x * 1664525 + 1013904223)
            text += static_cast<char>(x >> 24);
        return text;
    }();
    fail_every_call(
        [&] {
            row.size = 4000;
            row.compress_ratio = 1100;
            ASSERT_TRUE(begin());
            ASSERT_EQ(append(noise), noise.size());
            ASSERT_EQ(append("x"), 1u);
        },
        [&] { append(noise); },
        [&](const std::string& failed) { EXPECT_EQ(times_delivered(noise + "x"), 1u) << failed; });
    expect_errors({"vexastats_compress: fwrite failed.\n"});
}

TEST_F(FrameworkFaultTest, FailedRewriteOfTheFirstLineKeepsTheRecord) {
    size_t count = 0;
    fail_every_call(
        [&] {
            platform_test_set_real_ms(86400000);  // 1970
            ASSERT_TRUE(begin());
            ASSERT_EQ(append("01234before"), 11u);
            platform_test_set_real_ms(PLATFORM_TEST_REAL_MS);
        },
        [&] { count = append("after"); },
        [&](const std::string& failed) {
            EXPECT_EQ(count == 5, record().ends_with("after")) << failed;
            EXPECT_TRUE(handle.file || count == 0) << failed << count;
            EXPECT_EQ(times_delivered("before"), 1u) << failed;
        });
    expect_errors({"update_rt_timestamp fseek failed. err:5\n", "failed to write timestamp\n",
                   "failed to update rt timestamp\n",
                   "vexastats_write_file: failed to write file\n"});
}

TEST_F(FrameworkFaultTest, FailedBeginDeliversWhatWasLeftOnceOrTwiceNever) {
    fail_every_call(
        [&] { write_record(OLD_LINE + "old data"); }, [&] { begin(); },
        [&](const std::string& failed) { EXPECT_EQ(times_delivered("old data"), 1u) << failed; });
    expect_errors({"failed to open ", "failed to move old ", "failed to write timestamp\n",
                   "vexastats_record_init: failed to flush. err:28\n"});
}

TEST_F(FrameworkFaultTest, FailedDirectoryIsReported) {
    fail_every_call([&] { fs::remove_all(OWN); }, [&] { begin(); }, [](const std::string&) {});
    expect_errors({"failed to create /data/vendor/vexastats/7. err:28\n"});
}

TEST_F(FrameworkFaultTest, FailedLoadKeepsTheDownloadUntilItIsRecorded) {
    fail_every_call(
        [&] {
            ASSERT_TRUE(begin());
            write_text_file(row.dl_cfg_file,
                            "clientid=7;size=70000;interval=7;threshold=0;notify=0\n");
        },
        [&] { vexastats_init_params(&row); },
        [&](const std::string& failed) {
            if (fs::exists(row.dl_cfg_file)) return;
            EXPECT_THAT(file_text(row.cfg_file), ::testing::HasSubstr("size=70000;interval=7;"))
                << failed;
        });
    expect_errors({"failed to open test_collector cfg. err:", "failed to update cfg file.\n",
                   "failed to open dloaded cfg file. err:28\n",
                   "failed to remove /data/vendor/vexa/down/7/teststats.cfg. err:5\n"});
}

TEST_F(FrameworkFaultTest, FailedRequestIsReported) {
    fail_every_call([] {}, [] { (void)request(); }, [](const std::string&) {});
    expect_errors({"failed to create /data/vendor/vexa/down/7/7-1.1-x.cfg.req. err:28\n"});
}

}  // namespace
