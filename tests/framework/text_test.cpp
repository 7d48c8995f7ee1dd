// The text helpers do to a text what the C library does.
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "base/line_reader.h"
#include "base/text_cursor.h"
#include "base/text_file.h"
#include "base/unique_handle.h"
#include "framework/config/config_line.h"
#include "framework/time/clock.h"
#include "support/files.h"

namespace {

TEST(TextCursor, NumbersAreWhatSscanfMakesOfThem) {
    std::mt19937 random(4);
    const std::string alphabet = "0123456789999 \t-+x";
    for (int i = 0; i < 50000; ++i) {
        std::string text(random() % 24, ' ');
        for (char& c : text) c = alphabet[random() % alphabet.size()];
        int32_t expected_int = 77, found_int = 77;
        uint64_t expected_long = 77, found_long = 77;
        int consumed = 0;
        text_cursor cursor{std::string_view(text)};
        EXPECT_EQ(scan_int(&cursor, &found_int),
                  sscanf(text.c_str(), "%d%n", &expected_int, &consumed) == 1)
            << text;
        EXPECT_TRUE(consumed == 0 || cursor.at - text.data() == consumed) << text;
        cursor = text_cursor(std::string_view(text));
        EXPECT_EQ(scan_unsigned(&cursor, &found_long),
                  sscanf(text.c_str(), "%lu", &expected_long) == 1)
            << text;
        EXPECT_EQ(found_int, expected_int) << text;
        EXPECT_EQ(found_long, expected_long) << text;
    }
}

TEST(LineReader, CutsAFileAsFgetsDoes) {
    std::mt19937 random(5);
    for (int round = 0; round < 60; ++round) {
        const int size = 2 + static_cast<int>(random() % 600);
        std::string text(random() % 100000, 'x');
        for (unsigned i = random() % 400; i > 0 && !text.empty(); --i)
            text[random() % text.size()] = '\n';
        put_files({{"/data/lines", text}});
        const unique_file file(fopen("/data/lines", "r"));
        line_reader reader(unique_fd(dup(fileno(file.get()))));
        std::vector<char> buf(static_cast<size_t>(size));
        std::vector<std::string> expected, found;
        std::string_view line;
        while (line_reader_next(&reader, static_cast<size_t>(size - 1), &line))
            found.emplace_back(line);
        rewind(file.get());
        while (fgets(buf.data(), size, file.get())) {
            std::string piece = buf.data();
            if (piece.back() == '\n') piece.pop_back();
            expected.push_back(piece);
        }
        ASSERT_EQ(found, expected) << "round " << round << ", size " << size;
    }
}

TEST(TimeZone, ChangeIsSeenByTheNextReading) {
    setenv("TZ", "UTC0", 1);
    EXPECT_EQ(vexastats_timezone_min(), 0);
    setenv("TZ", "EAST-5:30", 1);
    EXPECT_EQ(vexastats_timezone_min(), 330);
    unsetenv("TZ");
    tzset();
}

// A writer that appends as fast as the file is read, by a stream that never ends.
TEST(ConfigLine, FileThatGrowsAsItIsReadEnds) {
    struct {
        const char* what;
        std::string piece;
    } const cases[] = {{"comments", "#a comment\n"},
                       {"empty lines", "\n"},
                       {"zero bytes", std::string("#\0\n", 3)}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        struct endless {
            const std::string& piece;
            size_t given = 0;
        } source{c.piece};
        const auto give = [](void* cookie, char* buf, size_t size) -> ssize_t {
            auto* from = static_cast<endless*>(cookie);
            for (size_t i = 0; i < size; ++i)
                buf[i] = from->piece[from->given++ % from->piece.size()];
            return static_cast<ssize_t>(size);
        };
        const unique_file stream(
            fopencookie(&source, "r", {.read = give, .write = {}, .seek = {}, .close = {}}));
        char line[CONFIG_LINE_SIZE];
        EXPECT_FALSE(config_read_value_line(stream.get(), line));
        EXPECT_LT(source.given, size_t{SMALL_FILE_MAX} + 65536);
    }
}

}  // namespace
