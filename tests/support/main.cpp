// Every test binary's main: the process enters a phone of its own before the first test. The phone
// is held in memory; VEXA_TEST_KEEP=1 puts its tree into the temporary directory and leaves it
// there.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <exception>
#include <filesystem>

#include "phone/enter.h"
#include "phone/phone_tree.h"

// There in binaries that link the scripted platform.
__attribute__((weak)) void platform_test_reset();

namespace {

class fresh_platform : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override { platform_test_reset(); }
};

phone_options test_phone() {
    phone_options options;
    options.writable = {std::filesystem::read_symlink("/proc/self/exe").parent_path(),
                        std::filesystem::current_path()};
    if (getenv("VEXA_WRITE_TRANSCRIPTS")) options.writable.emplace_back(GOLDEN_DIR);
    const char* keep = getenv("VEXA_TEST_KEEP");
    if (keep && std::string(keep) == "1") {
        std::string dir = testing::TempDir() + "vexa-phone-XXXXXX";
        if (!mkdtemp(dir.data())) throw std::runtime_error("cannot make " + dir);
        phone_create(dir);
        printf("The phone of this run: %s\n", dir.c_str());
        options.dir = dir;
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (GTEST_FLAG_GET(list_tests)) return RUN_ALL_TESTS();
    try {
        phone_enter(test_phone());
    } catch (const std::exception& error) {
        fprintf(stderr, "cannot enter a phone: %s\n", error.what());
        return 1;
    }
    if (platform_test_reset)
        testing::UnitTest::GetInstance()->listeners().Append(new fresh_platform);
    const int result = RUN_ALL_TESTS();
    phone_show_host_proc();
    return result;
}
