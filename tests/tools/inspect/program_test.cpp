// The program: several files, exit codes, what goes where.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "support/process.h"
#include "upload_writer.h"

using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

// A sanitizer's memory says nothing of the program's, and its work takes many times as long.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool MEMORY_COUNTS = false;
constexpr size_t GOOD_SAMPLES = 2;
#else
constexpr bool MEMORY_COUNTS = true;
constexpr size_t GOOD_SAMPLES = 20;
#endif

struct outcome {
    int code = -1;
    std::string out, err;
};

class InspectProgram : public testing::Test {
  protected:
    InspectProgram() {
        char name[] = "/tmp/inspect_test.XXXXXX";
        dir_ = mkdtemp(name);
    }
    ~InspectProgram() override { std::filesystem::remove_all(dir_); }

    std::string path(const std::string& name) const { return dir_ / name; }

    std::string write(const std::string& name, const byte_vector& bytes) const {
        std::ofstream(path(name), std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
        return path(name);
    }

    outcome run(const std::string& arguments) const {
        // A sanitizer's check for leaks needs this machine's /proc, which a phone does not have.
        // The other tests, whose process gets it back at its end, look for the reader's leaks.
        const auto command = "ASAN_OPTIONS=detect_leaks=0 " + std::string(INSPECT_PROGRAM) + " >" +
                             path("out") + " 2>" + path("err") + " " + arguments;
        child_process shell({"/bin/sh", "-c", command});
        return {shell.wait().value_or(-1), read("out"), read("err")};
    }

  private:
    std::string read(const std::string& name) const {
        std::ostringstream text;
        text << std::ifstream(path(name)).rdbuf();
        return text.str();
    }

    std::filesystem::path dir_;
};

}  // namespace

TEST_F(InspectProgram, BandListShowsItsHeaderInBothByteOrders) {
    const std::string owner(30, 'o');
    const std::string numbers{'\1', '\2', '\3', '\4', '\0', '\0', '\0', '\t'};
    for (const auto& [order, shown] : {std::pair{'\1', "04030201"}, {'\0', "01020304"}}) {
        const std::string bytes = std::string{order, '\7'} + owner + numbers;
        const auto list = write("list", byte_vector(bytes.begin(), bytes.end()));
        EXPECT_THAT(run("--band-list " + list).out, HasSubstr(shown + (" of \"" + owner + '"')));
        write("list", byte_vector(bytes.begin(), bytes.end() - 1));
        EXPECT_EQ(run("--band-list " + list).code, 1);
    }
}

TEST_F(InspectProgram, BandListThatIsEndlessOrTooLargeIsRefusedAndAPipeIsRead) {
    EXPECT_THAT(run("--band-list /dev/zero").err,
                HasSubstr("/dev/zero: is neither a regular file nor a pipe"));
    const auto list = write("list", byte_vector(40));
    EXPECT_EQ(run("--band-list /dev/stdin <" + list).code, 0);
    EXPECT_THAT(run("--band-list " + list).out, HasSubstr("40 bytes"));
    std::filesystem::resize_file(list, (size_t{16} << 20) + 1);
    const auto refused = run("--band-list " + list);
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.err, HasSubstr("/list: is larger than 16777216 bytes"));
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    EXPECT_EQ(run("--band-list " + path("fifo")).code, 1);
}

// A small file that unpacks to a lot must not cost a multiple of that again: many small records,
// and many places where a damaged one may go on.
TEST_F(InspectProgram, WorkAndMemoryAreBoundedByThePayload) {
    const auto repeated = [](const byte_vector& piece, size_t times) {
        byte_vector all;
        for (size_t i = 0; i < times; i++) all.insert(all.end(), piece.begin(), piece.end());
        return all;
    };
    const byte_vector odd_byte = {1};
    const struct {
        const char* name;
        byte_vector payload;
        file_fields format;
    } files[] = {
        {"cpu", repeated({1, 0, 0, 0}, size_t{1} << 18) + odd_byte, {}},
        {"gpu",
         repeated({1, 1, 1, 0}, size_t{1} << 20) + odd_byte,
         {.client_id = 1, .data_type = 1, .rec_version = 4}},
        {"log",
         repeated({28, 0}, size_t{1} << 21) + odd_byte,
         {.client_id = 501, .data_type = 1, .rec_version = 1}},
    };
    for (const auto& [name, payload, format] : files) {
        const auto damaged = write(name, upload(payload, format));
        const auto shown = run(damaged);
        EXPECT_EQ(shown.code, 1) << name;
        EXPECT_THAT(shown.err, HasSubstr("payload offset")) << name;
    }
    // Shown with what was left out, in a small multiple of the payload.
    byte_vector lines;  // a tag and as many line feeds as it has bytes
    put_le(lines, 1 + 2501 + 2501, 2);
    put_le(lines, 28, 2);
    lines.resize(28);
    put_le(lines, 4, 1);
    put_text(lines, std::string(2500, 't'));
    put_text(lines, std::string(2500, '\n'));
    const struct {
        const char* name;
        byte_vector payload;
        file_fields format;
        const char* left_out;
    } grown[] = {
        {"lines",
         repeated(lines, 1000),
         {.client_id = 501, .data_type = 1, .rec_version = 1},
         "  ... and 2468 lines more of this entry\n"},
        {"raw",
         repeated({0x12, 0}, size_t{1} << 22),
         {.client_id = 6, .data_type = 4, .rec_version = 1},
         "\n  ... and 4190208 data files more\n"},
        {"metrics",
         repeated({0x1a, 0}, size_t{1} << 22),
         {.client_id = 6, .data_type = 4, .rec_version = 1},
         "\n  ... and 4190208 data files more\n"},
    };
    for (const auto& [name, payload, format, left_out] : grown) {
        const auto file = write(name, upload(payload, format));
        const auto shown = run(file);
        EXPECT_EQ(shown.code, 0) << name;
        EXPECT_LT(shown.out.size(), 18 * payload.size()) << name;
        EXPECT_NE(shown.out.find(left_out), std::string::npos) << name;
        EXPECT_LT(run("--json " + file).out.size(), 18 * payload.size()) << name;
    }
    const auto refused = run(write("huge", upload(byte_vector((size_t{16} << 20) + 4097))));
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.err, HasSubstr("huge: offset 53: the gzip stream unpacks to more than"));

    const sample_fields many = {
        .network = std::vector<byte_vector>(60'000, network_entry(1, 10001, 0, 1, 1))};
    EXPECT_EQ(run("--json " + write("good", upload(repeated(sample(many), GOOD_SAMPLES)))).code, 0);
    if (!MEMORY_COUNTS) return;
    rusage usage = {};
    ASSERT_EQ(getrusage(RUSAGE_CHILDREN, &usage), 0);
    EXPECT_LT(usage.ru_maxrss, 512 << 10);  // of the largest run, in KiB
}

TEST_F(InspectProgram, DamagedFileIsNamedAndDoesNotHideTheOthers) {
    const auto good = write("good", upload(sample()));
    auto bytes = upload(sample());
    bytes.pop_back();
    const auto bad = write("bad", bytes);
    const auto other = write("other", upload(sample() + sample()));

    const auto shown = run("--json " + good + " " + bad + " " + other);
    EXPECT_EQ(shown.code, 1);
    EXPECT_THAT(
        shown.err,
        MatchesRegex("vexa-inspect: .*/bad: offset 25: payload length is [0-9]+, but .*\n"));
    std::istringstream lines(shown.out);
    std::vector<size_t> samples;
    for (std::string line; std::getline(lines, line);)
        samples.push_back(nlohmann::json::parse(line)["records"].size());
    EXPECT_EQ(samples, (std::vector<size_t>{1, 2}));
    EXPECT_EQ(run(good + " " + other).code, 0);
}

TEST_F(InspectProgram, DamageInsideThePayloadLeavesNoHalfLine) {
    auto payload = sample();
    payload.pop_back();
    const auto shown = run("--json " + write("bad", upload(payload)));
    EXPECT_EQ(shown.code, 1);
    EXPECT_EQ(shown.out, "");
    EXPECT_THAT(shown.err,
                HasSubstr("payload offset 90: the payload ends inside the process count"));
}

TEST_F(InspectProgram, WhatIsNoFileIsRefusedWithoutWaiting) {
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    for (const auto& [name, message] : {std::pair{"missing", "cannot open"},
                                        {"fifo", "not a regular file"},
                                        {".", "not a regular file"}}) {
        const auto shown = run(path(name));
        EXPECT_EQ(shown.code, 1) << name;
        EXPECT_THAT(shown.err, HasSubstr(message)) << name;
    }
}

TEST_F(InspectProgram, PathCannotSteerTheTerminal) {
    const std::string name = "a\x1b[2J\x7f\u009b";
    const auto file = write(name, upload(sample()));
    EXPECT_THAT(run("'" + file + "'").out, HasSubstr("/a\\x1b[2J\\x7f\\xc2\\x9b\n"));
    write(name, byte_vector(40));
    EXPECT_THAT(run("'" + file + "'").err, HasSubstr("/a\\x1b[2J\\x7f\\xc2\\x9b: offset 40"));
    EXPECT_THAT(run("--band-list '" + file + "'").out, HasSubstr("/a\\x1b[2J\\x7f\\xc2\\x9b: "));
}

TEST_F(InspectProgram, OutputThatCannotBeWrittenIsAFailure) {
    const auto good = write("good", upload(sample()));
    EXPECT_NE(run(good + " >/dev/full").code, 0);
}

TEST_F(InspectProgram, NoFileIsAUsageError) {
    EXPECT_EQ(run("--json").code, 2);
}
