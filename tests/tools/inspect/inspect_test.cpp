// Upload files told as text, and what is read of them: as a library, and by the program.
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/resource.h>

#include "support/dialogue.h"
#include "tools/inspect/upload_text.h"

namespace {

// Of the largest run. A sanitizer's memory says nothing of the program's.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr long MAX_KIB = LONG_MAX;
#else
constexpr long MAX_KIB = 128 << 10;
#endif

TEST(Inspect, FilesAndRecordsAreReadOrRefused) {
    for (const char* name : {"file", "cpu", "gpu", "alog", "microdump", "others"}) {
        upload_builder builder;
        expect_dialogue("inspect/" + std::string(name),
                        [&](const std::string& block) { return builder.answer(block); });
    }
}

// Lines that begin with "$" are for the shell.
TEST(Inspect, ProgramShowsWhatItCanInBoundedMemory) {
    const shell_session session;
    upload_builder builder(session.dir());
    expect_dialogue("inspect/program", [&](const std::string& block) {
        return block.starts_with("$ ") ? session.run(block.substr(2)) : builder.answer(block);
    });
    rusage usage = {};
    ASSERT_EQ(getrusage(RUSAGE_CHILDREN, &usage), 0);
    EXPECT_LT(usage.ru_maxrss, MAX_KIB);
}

}  // namespace
