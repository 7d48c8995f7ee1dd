// The phone's log on Linux: bytes of an entry, writers at once, what goes when a buffer is full,
// and readers that get every entry once.
#define LOG_TAG "vexastatsd"

#include "platform/log.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <memory>
#include <sstream>
#include <thread>

#include "host/log_file.h"
#include "platform/clock.h"
#include "platform/log_read.h"
#include "support/dialogue.h"
#include "support/files.h"

namespace {

constexpr char MAIN_LOG[] = "/dev/log/main";

struct reader_closer {
    void operator()(logger_list* list) const { android_logger_list_free(list); }
};
using reader = std::unique_ptr<logger_list, reader_closer>;

reader open_reader(int mode = O_NONBLOCK, unsigned tail = 0, pid_t pid = 0) {
    return reader(android_logger_list_open(LOG_ID_MAIN, mode, tail, pid));
}

// An entry of `size` bytes, told from others by its number.
std::string numbered_entry(uint32_t number, size_t size, int32_t pid = 1) {
    log_entry_header header;
    header.payload_len = static_cast<uint16_t>(size - sizeof header);
    header.pid = pid;
    header.tid = number;
    return std::string(reinterpret_cast<char*>(&header), sizeof header)
        .append(size - sizeof header, 'x');
}

void append(const std::string& bytes) {
    std::ofstream(MAIN_LOG, std::ios::binary | std::ios::app) << bytes;
}

// As the phone's programs do, with the rotation when the buffer is full.
void log_entry_of(uint32_t number, size_t size) {
    log_entry entry{};
    memset(entry.payload, 'x', sizeof entry.payload);
    entry.header.payload_len = static_cast<uint16_t>(size - sizeof entry.header);
    entry.header.tid = number;
    EXPECT_EQ(log_file_append("main", entry), 0);
}

// What a reader is given without waiting: the entries' numbers, or their sizes.
std::string read_all(const reader& from, bool sizes = false) {
    std::vector<uint32_t> numbers;
    std::string text;
    log_msg msg;
    int result = 0;
    while ((result = android_logger_list_read(from.get(), &msg)) > 0) {
        const auto size = static_cast<size_t>(result);
        EXPECT_EQ(std::string(msg.buf + 28, msg.buf + size), std::string(size - 28, 'x'));
        numbers.push_back(msg.entry.tid);
        text += std::to_string(size) + " ";
    }
    EXPECT_EQ(result, -EAGAIN);
    return (sizes ? text : numbers.empty() ? "nothing" : ranges_text(numbers)) + "\n";
}

// The log and its readers, told by words (tests/golden/platform/log.txt).
class log_words {
  public:
    std::string answer(const std::string& block) {
        std::string text;
        for (const auto& words : words_of(block)) text += step(words);
        return text;
    }

  private:
    std::string step(const std::vector<std::string>& words) {
        const auto number = [&](size_t i) {
            return i < words.size() ? static_cast<uint32_t>(std::stoul(words[i])) : 0;
        };
        if (words[0] == "append" || words[0] == "log") {  // FIRST LAST SIZE [PROCESS]
            for (uint32_t i = number(1); i <= number(2); ++i) {
                if (words[0] == "log") log_entry_of(i, number(3));
                if (words[0] == "append")
                    append(numbered_entry(i, number(3), static_cast<int32_t>(number(4))));
            }
        } else if (words[0] == "open") {  // READER [TAIL [PROCESS]]
            readers_[words[1]] = open_reader(O_NONBLOCK, number(2), static_cast<pid_t>(number(3)));
        } else if (words[0] == "read" || words[0] == "sizes") {
            return read_all(readers_.at(words[1]), words[0] == "sizes");
        } else if (words[0] == "pieces") {  // NUMBER SIZE PIECE READER
            const std::string entry = numbered_entry(number(1), number(2));
            std::string text;
            for (size_t at = 0; at < entry.size(); at += number(3)) {
                append(entry.substr(at, number(3)));
                if (at + number(3) < entry.size()) text = read_all(readers_.at(words[4]));
            }
            return text;
        } else if (words[0] == "zeros") {
            append(std::string(number(1), '\0'));
        } else if (words[0] == "remove") {
            std::filesystem::remove(MAIN_LOG);
        } else if (words[0] == "empty") {
            write_text_file(MAIN_LOG, "");
        } else if (words[0] == "file") {
            return std::to_string(std::filesystem::file_size(MAIN_LOG)) + " bytes\n";
        } else {
            return "what is this: " + words[0] + "\n";
        }
        return "";
    }

    std::map<std::string, reader> readers_;
};

class PhoneLog : public testing::Test {
  protected:
    void SetUp() override { unlink(MAIN_LOG); }
};

TEST_F(PhoneLog, ReadersGetEveryEntryOnceWhateverBecomesOfTheBuffer) {
    log_words words;
    expect_dialogue("platform/log", [&](const std::string& block) { return words.answer(block); });
}

TEST_F(PhoneLog, BuffersAreKnownByName) {
    EXPECT_EQ(android_name_to_log_id("main"), LOG_ID_MAIN);
    EXPECT_EQ(android_name_to_log_id("kernel"), LOG_ID_KERNEL);
    for (const char* name : {"", "mai", "mainx", static_cast<const char*>(nullptr)})
        EXPECT_EQ(android_name_to_log_id(name), LOG_ID_MAX);
    EXPECT_EQ(android_logger_list_open(LOG_ID_MAX, 0, 0, 0), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(PhoneLog, EntryHasThePlatformsBinaryForm) {
    timespec now = {};
    platform_clock_gettime(CLOCK_REALTIME, &now);
    errno = EBADF;
    ALOGE("%s: failed. err:%d\n", "somebody", 5);
    EXPECT_EQ(errno, EBADF);
    const std::string content = file_text(MAIN_LOG);
    EXPECT_EQ(content.substr(0, 4), std::string("\x25\0\x1c\0", 4));
    EXPECT_EQ(content.substr(28), std::string("\x06vexastatsd\0somebody: failed. err:5\n\0", 37));
    int32_t numbers[6];
    memcpy(numbers, &content[4], sizeof numbers);
    EXPECT_NEAR(numbers[2], static_cast<double>(now.tv_sec), 60);
    EXPECT_LT(numbers[3], 1000000000);
    numbers[2] = numbers[3] = 0;
    EXPECT_EQ(std::vector<int32_t>(numbers, numbers + 6),
              (std::vector<int32_t>{getpid(), gettid(), 0, 0, 0, static_cast<int32_t>(getuid())}));
}

TEST_F(PhoneLog, EntryCannotSteerTheTerminal) {
    const auto say = [] {
        ALOGI("name %s\n", "\x1b[2J\x7f\u009b\nx");
        _exit(0);
    };
    setenv("VEXA_LOG_STDERR", "1", 1);
    write_text_file("/dev/clock", "real=2017-01-02T03:04:05Z");
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(say(), testing::ExitedWithCode(0),
                "^01-02 03:0[4-9]:[0-9]{2}.[0-9]{3} I vexastatsd: name .x1b.2J.x7f.xc2.x9b.x0ax\n");
    unsetenv("VEXA_LOG_STDERR");
}

TEST_F(PhoneLog, LongTextIsCutToTheLargestPayload) {
    const std::string text(10000, 'm');
    ALOGI("%s", text.c_str());
    const std::string tag(500, 't');
    EXPECT_EQ(__android_log_print(ANDROID_LOG_DEBUG, tag.c_str(), "%s", text.c_str()), 4068);
    const std::string first = std::string("\x04vexastatsd\0", 12) + text.substr(0, 4055);
    const std::string second = '\x03' + tag.substr(0, 127) + '\0' + text.substr(0, 3938);
    const std::string content = file_text(MAIN_LOG);
    EXPECT_EQ(content.substr(28, 4068), first + '\0');
    EXPECT_EQ(content.substr(28 + 4068 + 28), second + '\0');
}

TEST_F(PhoneLog, WithoutALogEntriesAreDroppedInSilence) {
    ASSERT_EQ(rename("/dev/log", "/dev/nolog"), 0);
    errno = EBADF;
    EXPECT_EQ(__android_log_print(ANDROID_LOG_INFO, "t", "nobody hears"), -ENOENT);
    EXPECT_EQ(errno, EBADF);
    EXPECT_FALSE(std::filesystem::exists("/dev/log"));
    ASSERT_EQ(rename("/dev/nolog", "/dev/log"), 0);
}

// The numbers that each writer's entries have, told by their tags, as ranges. One line a writer.
std::string texts_by_writer() {
    std::map<std::string, std::vector<uint32_t>> writers;
    const std::string content = file_text(MAIN_LOG);
    size_t at = 0;
    while (at + 28 < content.size()) {
        const size_t size =
            static_cast<uint8_t>(content[at]) + 256u * static_cast<uint8_t>(content[at + 1]);
        const std::string payload = content.substr(at + 28, size);
        const size_t tag_end = payload.find('\0');
        const std::string text = payload.substr(tag_end + 1);
        EXPECT_EQ(text.find('\0'), text.size() - 1) << "torn";
        writers[payload.substr(1, tag_end - 1)].push_back(static_cast<uint32_t>(std::stoul(text)));
        at += 28 + size;
    }
    EXPECT_EQ(at, content.size()) << "torn or damaged entry";
    std::string all;
    for (const auto& [tag, numbers] : writers) all += tag + ": " + ranges_text(numbers) + "\n";
    return all;
}

// Two processes of two threads each, until the buffer has overflowed once, so that what is lost in
// the overflow shows as a gap in what is left.
TEST_F(PhoneLog, EntriesOfWritersAtOnceStayWholeAndAreNotLost) {
    constexpr int ENTRIES = 450;
    const std::string filler(3000, 'f');
    const auto write_entries = [&](const char* tag) {
        for (int i = 0; i < ENTRIES; ++i)
            __android_log_print(ANDROID_LOG_INFO, tag, "%d %s", i, filler.c_str());
    };
    for (int round = 0; round < 5; ++round) {
        unlink(MAIN_LOG);
        const pid_t child = fork();
        std::thread other(write_entries, child == 0 ? "a" : "b");
        write_entries(child == 0 ? "c" : "d");
        other.join();
        if (child == 0) _exit(0);
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        const std::string all = texts_by_writer();
        EXPECT_FALSE(all.empty());
        std::istringstream lines(all);
        for (std::string line; std::getline(lines, line);)
            EXPECT_TRUE(line.ends_with("449") && std::count(line.begin(), line.end(), ' ') == 1)
                << "lost or out of order: " << line;
        EXPECT_LE(std::filesystem::file_size(MAIN_LOG), LOG_FILE_LIMIT_BYTES);
        EXPECT_EQ(list_dir("/dev/log"), std::vector<std::string>{"main"});
    }
}

// ---- Blocking

TEST_F(PhoneLog, SeveralReadersGetEveryEntryWhileTheBufferRotates) {
    constexpr uint32_t ENTRIES = 6000;
    constexpr uint32_t READERS = 3;
    log_entry_of(0, 1000);
    std::atomic<uint32_t> reached[READERS] = {};
    std::vector<std::thread> threads;
    for (auto& own : reached) {
        threads.emplace_back([&, from = open_reader(0)] {
            log_msg msg;
            for (uint32_t number = 0; number < ENTRIES; ++number) {
                ASSERT_EQ(android_logger_list_read(from.get(), &msg), 1000);
                ASSERT_EQ(msg.entry.tid, number);
                own = number;
            }
        });
    }
    for (uint32_t number = 1; number < ENTRIES; ++number) {
        // No reader falls behind as far as the half that goes.
        for (const auto& r : reached) {
            while (number - r > 1000) std::this_thread::yield();
        }
        log_entry_of(number, 1000);
    }
    for (std::thread& thread : threads) thread.join();
}

std::atomic<int> g_signals{0};

TEST_F(PhoneLog, EntryEndsTheWaitAndASignalDoesNot) {
    struct sigaction action = {};
    action.sa_handler = [](int) { ++g_signals; };
    sigaction(SIGINT, &action, nullptr);
    const reader from = open_reader(0);
    std::atomic<int> result{0};
    std::thread waiting([&] {
        log_msg msg;
        result = android_logger_list_read(from.get(), &msg);
    });
    // So many come one after the other only when the read goes on in between.
    while (g_signals < 1000 && result == 0) {
        pthread_kill(waiting.native_handle(), SIGINT);
        std::this_thread::yield();
    }
    append(numbered_entry(1, 100));
    waiting.join();
    EXPECT_EQ(result, 100);
}

}  // namespace
