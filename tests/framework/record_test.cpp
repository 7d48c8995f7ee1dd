// Records and their hand-over: what stands in the files at every step.
#include "framework/record/record.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <random>

#include "base/unique_handle.h"
#include "framework/record/hand_over.h"
#include "support/gzip.h"
#include "support/record_phone.h"

namespace fs = std::filesystem;

namespace {

struct RecordTest : testing::Test, record_phone {};

TEST_F(RecordTest, FailedRenameLeavesTheFinishedFileForTheNextBegin) {
    // These fill the pieces in which the payload is decompressed to the last byte.
    for (const size_t size : {2 * 16384 - 1, 16384, 3 * 16384}) {
        SCOPED_TRACE(size);
        reset();
        const std::string data(size, 'd');
        ASSERT_TRUE(begin());
        fs::remove_all(UP);
        EXPECT_EQ(append(data, WRITE_DROP | WRITE_BEGIN_NEW), 0u);
        fs::create_directories(UP);
        EXPECT_TRUE(begin());
        EXPECT_EQ(dropbox_payloads(UP), std::vector{data});
    }
}

TEST_F(RecordTest, NameWithoutADotHasNoSequenceAndIsNotHandedOver) {
    ASSERT_TRUE(begin());
    strcpy(row.rec_fname, own("nodot").c_str());
    write_text_file(row.rec_fname, OLD_LINE + "x");
    EXPECT_EQ(move_to_dropbox(&row, &handle, false), -EINVAL);
    EXPECT_EQ(log(), "E vexastatsd: invalid rec_fname /data/vendor/vexastats/7/nodot\n");
    EXPECT_EQ(list_dir(OWN), (std::vector<std::string>{"nodot", "teststats.tmp"}));
    const unique_file out(tmpfile());
    ASSERT_EQ(prepend_header(out.get(), &row), 0);
    rewind(out.get());
    char header[53];
    ASSERT_EQ(fread(header, 1, sizeof header, out.get()), sizeof header);
    EXPECT_EQ(hex({header + 49, 4}), "deadbeef");
}

// A finished file as an interrupted hand-over leaves it: but for one that is whole, it goes, and
// its record is delivered.
TEST_F(RecordTest, FinishedFileThatIsCutAnywhereIsRemovedAndItsRecordDelivered) {
    ASSERT_TRUE(begin());
    ASSERT_EQ(append("finished", WRITE_DROP), 8u);
    const std::string finished = file_text(up("teststats.1700000000000"));
    platform_test_advance_ms(60000);
    for (size_t len = 0; len <= finished.size(); len++) {
        for (const std::string& name : list_dir(UP)) fs::remove(up(name));
        write_text_file(own("teststats.1700000000000"), finished.substr(0, len));
        write_record(NEW_LINE + "finished");
        ASSERT_TRUE(begin());
        ASSERT_FALSE(fs::exists(own("teststats.1700000000000")));
        ASSERT_EQ(dropbox_payloads(UP), std::vector<std::string>{"finished"}) << len;
    }
}

// ---- What stands in the way of a record

TEST_F(RecordTest, RecordWhoseHandOverFailsIsResumed) {
    write_record(OLD_LINE + "old");
    const std::string too_long(PATH_MAX, 'x');
    row.up_dir = too_long.c_str();  // no name in the dropbox fits
    ASSERT_TRUE(begin());
    EXPECT_EQ(record(), OLD_LINE + "old");
    EXPECT_EQ(row.hdr.realtime_ms, 1600000000000u);
    ASSERT_EQ(append(" and new"), 8u);
    row.up_dir = UP;
    drop();
    EXPECT_EQ(dropbox(), "teststats.1600000000000 seq 1: old and new\n");
}

// ---- Where a record is full

// The slow way: estimate, and when that is too large compress the whole record afresh.
class measured_record {
  public:
    measured_record(int32_t size, std::string line) : size_(size), line_(std::move(line)) {}

    // Returns the payload of the record that the bytes pushed out; empty when they fit.
    std::string append(std::string_view data) {
        std::string payload;
        const size_t pos = line_.size() + data_.size();
        const size_t estimate = data.size() * ratio_ / 1000;
        if (53 + (data.size() + pos) * ratio_ / 1000 > static_cast<size_t>(size_) &&
            53 + gzip(line_ + data_).size() + estimate > static_cast<size_t>(size_)) {
            payload = gzip(data_);
            ratio_ = payload.size() * 1100 / pos;
            data_.clear();
        }
        data_ += data;
        return payload;
    }

  private:
    int32_t size_;
    std::string line_;
    std::string data_;
    size_t ratio_ = 200;
};

using generator = std::function<std::string(std::mt19937&)>;

std::string random_text(std::mt19937& rnd, size_t len, int alphabet, int first = 0) {
    std::string text(len, '\0');
    for (char& c : text) c = static_cast<char>(first + static_cast<int>(rnd() % alphabet));
    return text;
}

std::string counters(std::mt19937& rnd) {
    static uint32_t counter[64];
    std::string text;
    for (uint32_t& c : counter) {
        c += rnd() % 900;
        text.append(reinterpret_cast<char*>(&c), sizeof c);
    }
    return text + "com.example.app" + std::to_string(rnd() % 40) + std::string(rnd() % 700, '\0');
}

std::string changing_alphabets(std::mt19937& rnd) {
    static int n = 0;
    return random_text(rnd, 900, 16, ++n / 20 % 2 ? 0 : 64);
}

// Made against answers that leave the first line out: the alphabet changes exactly with the
// compressor's blocks, so a line's length more or less mixes two of them.
template <int ALPHABET>
std::string alphabet_per_block(std::mt19937& rnd) {
    static size_t at = 0;
    std::string text(100 + rnd() % 400, '\0');
    for (char& c : text) {
        const int first = at++ / 16383 % 2 ? 0 : ALPHABET;
        c = static_cast<char>(first + static_cast<int>(rnd() % ALPHABET));
    }
    return text;
}

// Made against estimates of what an append can cost: short repeats from two distances, then others.
std::string two_distances(std::mt19937& rnd) {
    static std::string all = random_text(rnd, 9000, 256);
    const size_t begin = all.size();
    while (all.size() < begin + 600) {
        const size_t distance = rnd() % 5000 ? (rnd() % 2 ? 300 : 8500) : 1000 + rnd() % 7000;
        for (size_t i = 0; i < 3; i++) all += all[all.size() - distance];
    }
    return all.substr(begin);
}

TEST_F(RecordTest, RecordIsFullWhereTheWholeRecordMeasuresTooLarge) {
    const struct {
        const char* name;
        generator next;
        int32_t size;
        int appends;
    } cases[] = {
        {"counters", counters, 20000, 900},
        {"noise", [](std::mt19937& r) { return random_text(r, 1 + r() % 3000, 256); }, 20000, 300},
        {"letters", [](std::mt19937& r) { return random_text(r, 1 + r() % 2000, 26, 'a'); }, 3000,
         500},
        {"bits", [](std::mt19937& r) { return random_text(r, r() % 4000, 2, '0'); }, 3000, 900},
        {"the first line again",
         [](std::mt19937& r) { return NEW_LINE + random_text(r, r() % 900, 10, '0'); }, 20000, 400},
        {"changing alphabets", changing_alphabets, 65536, 400},
        {"64 letters a block", alphabet_per_block<64>, 20000, 900},
        {"128 letters a block", alphabet_per_block<128>, 20000, 900},
        {"two distances", two_distances, 20000, 400},
        {"zeros and noise",
         [](std::mt19937& r) {
             return std::string(r() % 5000, '\0') + random_text(r, r() % 600, 256);
         },
         3000, 600},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        reset();
        std::mt19937 rnd(static_cast<unsigned>(c.size));
        row.size = c.size;
        ASSERT_TRUE(begin());
        measured_record slow(c.size, NEW_LINE);
        int uploads = 0;
        for (int i = 0; i < c.appends; i++) {
            const std::string data = c.next(rnd);
            const std::string expected = slow.append(data);
            ASSERT_EQ(append(data), data.size());
            ASSERT_EQ(rolled_over, !expected.empty()) << "append " << i;
            if (!rolled_over) continue;
            ++uploads;
            const fs::path path = up(list_dir(UP)[0]);
            ASSERT_EQ(file_text(path).substr(53), expected);
            fs::remove(path);
        }
        EXPECT_GT(uploads, 0);
    }
}

}  // namespace
