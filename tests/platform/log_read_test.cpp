// Reading the log buffers of the phone on Linux: every entry once, also while the oldest half goes.
#include "platform/log_read.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <numeric>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "host/log_file.h"
#include "support/events.h"
#include "support/files.h"

namespace {

constexpr char MAIN_LOG[] = "/dev/log/main";

// An entry of `size` bytes, told from others by its number.
std::string numbered_entry(uint32_t number, size_t size, int32_t pid = 1) {
    log_entry_header header;
    header.payload_len = static_cast<uint16_t>(size - sizeof header);
    header.pid = pid;
    header.tid = number;
    std::string bytes(size, 'x');
    memcpy(bytes.data(), &header, sizeof header);
    return bytes;
}

void append(const std::string& bytes) {
    std::ofstream(MAIN_LOG, std::ios::binary | std::ios::app) << bytes << std::flush;
}

// Appends as the phone's programs do, with the rotation when the buffer is full.
void log_entries(uint32_t first, uint32_t count, size_t size) {
    log_entry entry{};
    memset(entry.payload, 'x', sizeof entry.payload);
    entry.header.payload_len = static_cast<uint16_t>(size - sizeof entry.header);
    for (uint32_t i = first; i < first + count; ++i) {
        entry.header.tid = i;
        ASSERT_EQ(log_file_append("main", entry), 0);
    }
}

struct reader_closer {
    void operator()(logger_list* list) const { android_logger_list_free(list); }
};
using reader = std::unique_ptr<logger_list, reader_closer>;

reader open_reader(int mode = O_NONBLOCK, unsigned tail = 0, pid_t pid = 0) {
    return reader(android_logger_list_open(LOG_ID_MAIN, mode, tail, pid));
}

// The numbers of all entries that can be read without waiting.
std::vector<uint32_t> read_numbers(const reader& from) {
    std::vector<uint32_t> numbers;
    log_msg msg;
    int result = 0;
    while ((result = android_logger_list_read(from.get(), &msg)) > 0) {
        numbers.push_back(msg.entry.tid);
    }
    EXPECT_EQ(result, -EAGAIN);
    return numbers;
}

std::vector<uint32_t> count_from(uint32_t first, size_t count) {
    std::vector<uint32_t> numbers(count);
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
}

class LogReader : public testing::Test {
  protected:
    void SetUp() override { std::filesystem::remove(MAIN_LOG); }
};

TEST_F(LogReader, BuffersAreKnownByName) {
    EXPECT_EQ(android_name_to_log_id("main"), LOG_ID_MAIN);
    EXPECT_EQ(android_name_to_log_id("kernel"), LOG_ID_KERNEL);
    for (const char* name : {"", "mai", "mainx"})
        EXPECT_EQ(android_name_to_log_id(name), LOG_ID_MAX);
    EXPECT_EQ(android_name_to_log_id(nullptr), LOG_ID_MAX);
    EXPECT_EQ(android_logger_list_open(LOG_ID_MAX, 0, 0, 0), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(LogReader, EntriesAreHandedOverByteForByteUpToTheLargestSize) {
    const std::vector<std::string> entries = {
        numbered_entry(1, 28),   numbered_entry(2, 4096),       numbered_entry(3, 5120),
        numbered_entry(4, 5121), numbered_entry(5, 65535 + 28), numbered_entry(6, 29)};
    for (const std::string& entry : entries) append(entry);
    const reader from = open_reader();
    for (const std::string& entry : entries) {
        log_msg msg;
        const int size = android_logger_list_read(from.get(), &msg);
        ASSERT_EQ(static_cast<size_t>(size), std::min<size_t>(entry.size(), 5120));
        EXPECT_EQ(std::string(reinterpret_cast<char*>(msg.buf), static_cast<size_t>(size)),
                  entry.substr(0, 5120));
    }
    EXPECT_TRUE(read_numbers(from).empty());
}

TEST_F(LogReader, EntryThatIsNotWholeYetIsNotHandedOver) {
    const std::string entry = numbered_entry(1, 500);
    const reader from = open_reader();
    for (size_t at = 0; at < entry.size(); at += 9) {
        EXPECT_TRUE(read_numbers(from).empty()) << at;
        append(entry.substr(at, 9));
    }
    EXPECT_EQ(read_numbers(from), count_from(1, 1));
}

TEST_F(LogReader, TailAndProcessChooseEntries) {
    for (uint32_t i = 0; i < 10; ++i) append(numbered_entry(i, 100, i % 2 ? 7 : 8));
    EXPECT_EQ(read_numbers(open_reader(O_NONBLOCK, 3)), count_from(7, 3));
    EXPECT_EQ(read_numbers(open_reader(O_NONBLOCK, 11)), count_from(0, 10));
    EXPECT_EQ(read_numbers(open_reader(O_NONBLOCK, 0, 7)), (std::vector<uint32_t>{1, 3, 5, 7, 9}));
}

TEST_F(LogReader, DamageIsPassedOverWithoutASpin) {
    append(numbered_entry(1, 100) + std::string(1000, '\0'));
    const reader from = open_reader();
    EXPECT_EQ(read_numbers(from), count_from(1, 1));
    append(numbered_entry(2, 100));
    EXPECT_EQ(read_numbers(from), count_from(2, 1));
}

TEST_F(LogReader, BufferThatIsEmptiedOrRemovedIsReadFromItsNewStart) {
    const reader from = open_reader();
    append(numbered_entry(1, 100));
    EXPECT_EQ(read_numbers(from), count_from(1, 1));
    write_text_file(MAIN_LOG, "");
    EXPECT_TRUE(read_numbers(from).empty());
    append(numbered_entry(2, 100));
    EXPECT_EQ(read_numbers(from), count_from(2, 1));
    std::filesystem::remove(MAIN_LOG);
    EXPECT_TRUE(read_numbers(from).empty());
    append(numbered_entry(3, 100));
    EXPECT_EQ(read_numbers(from), count_from(3, 1));
}

// 4194 entries of 1000 bytes fill the buffer; the first that does not fit drops 2097 of them.
constexpr uint32_t FULL = 4194, DROPPED = 2097;

TEST_F(LogReader, AfterTheOldestHalfWentNothingComesTwiceAndNothingLeftIsSkipped) {
    struct {
        const char* reader;
        uint32_t read_before;
        uint32_t first_after;
    } const cases[] = {
        {"at the end", FULL, FULL},
        {"behind the cut", DROPPED + 500, DROPPED + 500},
        {"just at the cut", DROPPED, DROPPED},
        {"in the half that goes", 700, 700},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reader);
        std::filesystem::remove(MAIN_LOG);
        log_entries(0, c.read_before, 1000);
        const reader from = open_reader();
        ASSERT_EQ(read_numbers(from), count_from(0, c.read_before));
        log_entries(c.read_before, FULL - c.read_before, 1000);
        log_entries(FULL, 5, 1000);
        const uint32_t first = std::max(c.first_after, DROPPED);
        EXPECT_EQ(read_numbers(from), count_from(first, FULL + 5 - first));
    }
}

TEST_F(LogReader, SeveralHalvesThatWentUnseenLeaveAWholeRow) {
    for (const uint32_t more : {FULL, 2 * FULL, 3 * FULL + 17}) {
        SCOPED_TRACE(more);
        std::filesystem::remove(MAIN_LOG);
        log_entries(0, 4000, 1000);
        const reader slow = open_reader();
        ASSERT_EQ(read_numbers(slow).size(), 4000u);
        log_entries(4000, more, 1000);
        const std::vector<uint32_t> left = read_numbers(open_reader());
        EXPECT_EQ(read_numbers(slow), left);
        EXPECT_EQ(left.back(), 4000 + more - 1);
    }
    // Two rotations that leave entries in the buffer which were read before the first of them.
    std::filesystem::remove(MAIN_LOG);
    append(std::string(numbered_entry(0, 4096)));
    for (uint32_t i = 1; i < 1023; ++i) append(numbered_entry(i, 4096));
    append(numbered_entry(1023, 4000));
    const reader slow = open_reader();
    ASSERT_EQ(read_numbers(slow), count_from(0, 1024));
    log_entries(1024, 512, 4096);  // the first of these drops 0 to 511, the last 512 to 1023
    std::vector<uint32_t> left = read_numbers(open_reader());
    std::erase_if(left, [](uint32_t number) { return number < 1024; });
    EXPECT_EQ(read_numbers(slow), left);
}

// ---- Blocking

std::atomic<int> g_signals{0};

class BlockingLogReader : public LogReader {
  protected:
    void SetUp() override {
        LogReader::SetUp();
        struct sigaction action = {};
        action.sa_handler = [](int) { ++g_signals; };
        sigaction(SIGINT, &action, nullptr);
    }
};

TEST_F(BlockingLogReader, SeveralReadersGetEveryEntryWhileTheBufferRotates) {
    constexpr uint32_t ENTRIES = 6000;
    constexpr uint32_t READERS = 3;
    log_entries(0, 1, 1000);
    std::atomic<uint32_t> reached[READERS] = {};
    std::vector<std::thread> threads;
    std::vector<reader> readers;
    for (uint32_t i = 0; i < READERS; ++i) readers.push_back(open_reader(0));
    for (uint32_t i = 0; i < READERS; ++i) {
        threads.emplace_back([&, i] {
            log_msg msg;
            for (uint32_t number = 0; number < ENTRIES; ++number) {
                ASSERT_EQ(android_logger_list_read(readers[i].get(), &msg), 1000);
                ASSERT_EQ(msg.entry.tid, number);
                reached[i] = number;
            }
        });
    }
    for (uint32_t number = 1; number < ENTRIES; ++number) {
        // No reader falls behind as far as the half that goes.
        for (const auto& r : reached) {
            while (number - r > 1000) std::this_thread::yield();
        }
        log_entries(number, 1, 1000);
    }
    for (std::thread& thread : threads) thread.join();
}

TEST_F(BlockingLogReader, EntryEndsTheWaitAndASignalDoesNot) {
    const reader from = open_reader(0);
    std::atomic<int> result{0};
    const int before = g_signals;
    std::thread waiting([&] {
        log_msg msg;
        result = android_logger_list_read(from.get(), &msg);
    });
    // So many come one after the other only when the read goes on in between.
    while (g_signals < before + 1000 && result == 0) {
        pthread_kill(waiting.native_handle(), SIGINT);
        std::this_thread::yield();
    }
    append(numbered_entry(1, 100));
    waiting.join();
    EXPECT_EQ(result, 100);
}

}  // namespace
