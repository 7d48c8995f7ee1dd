// The program: several files, exit codes, what goes where.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
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

TEST_F(InspectProgram, OutputThatCannotBeWrittenIsAFailure) {
    const auto good = write("good", upload(sample()));
    EXPECT_NE(run(good + " >/dev/full").code, 0);
}

TEST_F(InspectProgram, NoFileIsAUsageError) {
    EXPECT_EQ(run("--json").code, 2);
}
