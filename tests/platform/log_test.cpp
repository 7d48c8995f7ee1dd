// The phone's log on Linux: bytes of an entry, writers at once, and what goes when a buffer is
// full.
#define LOG_TAG "vexastatsd"

#include "platform/log.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <thread>

#include "host/log_file.h"
#include "platform/clock.h"
#include "support/files.h"

namespace {

using testing::ElementsAre;

constexpr char MAIN_LOG[] = "/dev/log/main";

struct parsed_entry {
    log_entry_header header;
    int priority;
    std::string tag;
    std::string text;
};

// Reads a log as somebody else would, by the numbers; fails the test at the first thing that is not
// as it should be.
std::vector<parsed_entry> parse_log(const std::string& content) {
    std::vector<parsed_entry> entries;
    size_t at = 0;
    while (at < content.size()) {
        parsed_entry entry{};
        if (content.size() - at < 28) break;
        memcpy(&entry.header, &content[at], 28);
        const std::string payload = content.substr(at + 28, entry.header.payload_len);
        const size_t tag_end = payload.find('\0');
        if (entry.header.header_size != 28 || payload.size() != entry.header.payload_len ||
            payload.back() != '\0' || tag_end == payload.size() - 1) {
            break;
        }
        entry.priority = payload[0];
        entry.tag = payload.substr(1, tag_end - 1);
        entry.text = payload.substr(tag_end + 1, payload.size() - tag_end - 2);
        entries.push_back(entry);
        at += 28 + payload.size();
    }
    EXPECT_EQ(at, content.size()) << "torn or damaged entry";
    return entries;
}

std::vector<parsed_entry> main_log() {
    return parse_log(read_file(MAIN_LOG).value_or(""));
}

// An entry of exactly `size` bytes, told from others by its number.
std::string numbered_entry(uint32_t number, size_t size) {
    log_entry_header header;
    header.payload_len = static_cast<uint16_t>(size - sizeof header);
    header.tid = number;
    std::string bytes(size, 'x');
    memcpy(bytes.data(), &header, sizeof header);
    bytes[28] = ANDROID_LOG_INFO;
    bytes[29] = 't';
    bytes[30] = '\0';
    bytes.back() = '\0';
    return bytes;
}

class PhoneLog : public testing::Test {
  protected:
    void SetUp() override { unlink(MAIN_LOG); }
};

TEST_F(PhoneLog, EntryHasThePlatformsBinaryForm) {
    timespec now = {};
    platform_clock_gettime(CLOCK_REALTIME, &now);
    errno = EBADF;
    ALOGE("%s: failed. err:%d\n", "somebody", 5);
    EXPECT_EQ(errno, EBADF);
    const std::string content = read_file(MAIN_LOG).value_or("");
    const std::string payload("\x06vexastatsd\0somebody: failed. err:5\n\0", 37);
    ASSERT_EQ(content.size(), 28 + payload.size());
    EXPECT_EQ(content.substr(28), payload);
    EXPECT_EQ(content.substr(0, 4), std::string("\x25\0\x1c\0", 4));
    int32_t numbers[6];
    memcpy(numbers, &content[4], sizeof numbers);
    EXPECT_EQ(numbers[0], getpid());
    EXPECT_EQ(numbers[1], gettid());
    EXPECT_NEAR(numbers[2], static_cast<double>(now.tv_sec), 60);
    EXPECT_LT(numbers[3], 1000000000);
    EXPECT_EQ(numbers[4], 0);
    EXPECT_EQ(static_cast<uid_t>(numbers[5]), getuid());
}

TEST_F(PhoneLog, EntryCannotSteerTheTerminal) {
    const auto say = [] {
        ALOGI("name %s\n", "\x1b[2J\x7f\u009b\nx");
        _exit(0);
    };
    setenv("VEXA_LOG_STDERR", "1", 1);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(say(), testing::ExitedWithCode(0),
                testing::HasSubstr("I vexastatsd: name \\x1b[2J\\x7f\\xc2\\x9b\\x0ax\n"));
    unsetenv("VEXA_LOG_STDERR");
}

TEST_F(PhoneLog, LongTextIsCutToTheLargestPayload) {
    const std::string text(10000, 'm');
    const std::string tag(500, 't');
    ALOGI("%s", text.c_str());
    EXPECT_GT(__android_log_print(ANDROID_LOG_DEBUG, tag.c_str(), "%s", text.c_str()), 0);
    ALOGI("%s", "");
    const std::vector<parsed_entry> entries = main_log();
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].header.payload_len, 4068);
    EXPECT_EQ(entries[0].text, std::string(4068 - 1 - 11 - 1, 'm'));
    EXPECT_EQ(entries[1].header.payload_len, 4068);
    EXPECT_EQ(entries[2].text, "");
}

TEST_F(PhoneLog, WithoutALogEntriesAreDroppedInSilence) {
    ASSERT_EQ(rename("/dev/log", "/dev/nolog"), 0);
    errno = EBADF;
    EXPECT_LT(__android_log_print(ANDROID_LOG_INFO, "t", "nobody hears"), 0);
    EXPECT_EQ(errno, EBADF);
    EXPECT_FALSE(std::filesystem::exists("/dev/log"));
    ASSERT_EQ(rename("/dev/nolog", "/dev/log"), 0);
}

// Two processes of two threads each, until the buffer has overflowed once, so that what is lost in
// the overflow shows as a gap in what is left.
void fill_from_two_processes(const std::string& filler) {
    constexpr int PROCESSES = 2, THREADS = 2, ENTRIES = 450;
    const auto write_entries = [&](int writer) {
        for (int i = 0; i < ENTRIES; ++i) ALOGI("%d %d %s", writer, i, filler.c_str());
    };
    pid_t children[PROCESSES];
    for (int process = 0; process < PROCESSES; ++process) {
        children[process] = fork();
        ASSERT_GE(children[process], 0);
        if (children[process] > 0) continue;
        std::vector<std::thread> threads;
        for (int i = 0; i < THREADS; ++i)
            threads.emplace_back(write_entries, process * THREADS + i);
        for (std::thread& thread : threads) thread.join();
        _exit(0);
    }
    for (const pid_t child : children) {
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
}

TEST_F(PhoneLog, EntriesOfWritersAtOnceStayWholeAndAreNotLost) {
    const std::string filler(3000, 'f');
    for (int round = 0; round < 5; ++round) {
        unlink(MAIN_LOG);
        fill_from_two_processes(filler);
        std::map<int, int> last;
        for (const parsed_entry& entry : main_log()) {
            int writer = -1, number = -1;
            ASSERT_EQ(sscanf(entry.text.c_str(), "%d %d", &writer, &number), 2);
            EXPECT_TRUE(entry.text.ends_with(filler));
            if (last.contains(writer)) {
                EXPECT_EQ(number, last[writer] + 1) << "lost or out of order";
            }
            last[writer] = number;
        }
        EXPECT_LE(std::filesystem::file_size(MAIN_LOG), LOG_FILE_LIMIT_BYTES);
        EXPECT_THAT(list_dir("/dev/log"), ElementsAre("main"));
    }
}

TEST_F(PhoneLog, OldestHalfGoesAtAnEntryBoundaryWhenAnEntryDoesNotFit) {
    // 4190 entries of 1000 bytes, and one that leaves room for exactly 100 bytes.
    std::string content;
    for (uint32_t i = 0; i < 4190; ++i) content += numbered_entry(i, 1000);
    content += numbered_entry(4190, LOG_FILE_LIMIT_BYTES - content.size() - 100);
    write_text_file(MAIN_LOG, content);
    std::ifstream reader(MAIN_LOG, std::ios::binary);

    const int tag_len = 1;
    const std::string fits(100 - 28 - 1 - tag_len - 1 - 1, 'y');
    __android_log_print(ANDROID_LOG_INFO, "t", "%s", fits.c_str());
    EXPECT_EQ(std::filesystem::file_size(MAIN_LOG), LOG_FILE_LIMIT_BYTES)
        << "what fits exactly fits";
    ASSERT_EQ(main_log().size(), 4192u);

    ALOGI("one too many");
    const std::vector<parsed_entry> left = main_log();
    ASSERT_FALSE(left.empty());
    EXPECT_EQ(left.front().header.tid, 2098u)
        << "the first entry that begins at or after half of 4 MiB";
    EXPECT_EQ(left.size(), 4192u - 2098u + 1);
    EXPECT_EQ(left.back().text, "one too many");
    const std::string old{std::istreambuf_iterator<char>(reader), {}};
    EXPECT_EQ(old.size(), LOG_FILE_LIMIT_BYTES) << "a reader can finish the file that it has open";
}

TEST_F(PhoneLog, DamagedBufferIsBegunAfresh) {
    std::string content;
    for (uint32_t i = 0; i < 100; ++i) content += numbered_entry(i, 1000);
    content.resize(LOG_FILE_LIMIT_BYTES, '\0');
    write_text_file(MAIN_LOG, content);
    ALOGI("after");
    const std::vector<parsed_entry> left = main_log();
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].text, "after");
}

}  // namespace
