// Stands in for libFuzzer: feeds a target every file in the folders given, once. A build with
// VEXA_FUZZ=ON has libFuzzer's main instead.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz_target.h"

namespace {

bool run_file(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), {});
    if (file.bad()) return false;
    // A copy of exactly the input's size, so that a sanitizer sees a read past its end.
    const std::vector<uint8_t> input(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(input.data(), input.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    int count = 0;
    for (int i = 1; i < argc; i++) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            if (!run_file(entry.path())) return 1;
            count++;
        }
    }
    printf("%d inputs\n", count);
    return count > 0 ? 0 : 1;  // an empty corpus tests nothing
}
