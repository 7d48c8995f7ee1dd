#include "driven/driven_phone.h"

#include <algorithm>
#include <chrono>

#include "phone/file_tree.h"
#include "support/files.h"

namespace {

namespace fs = std::filesystem;

// Of a script that does not say.
constexpr char START[] = "driven:real=2024-05-01T06:00:00Z";
// For a run of a few seconds, under a sanitizer, beside two that keep the machine busy.
constexpr std::chrono::seconds LIMIT{100};

}  // namespace

void driven_phone::remove_processes() const {
    for (const std::string& name : list_dir(dir() / "proc")) {
        if (name == "1" || name == "2") continue;  // a sanitizer's check for leaks looks for these
        if (std::all_of(name.begin(), name.end(), [](char c) { return '0' <= c && c <= '9'; }))
            fs::remove_all(dir() / "proc" / name);
    }
}

driven_result driven_phone::run(const std::string& script, const std::vector<std::string>& options,
                                const std::vector<std::string>& command) const {
    const fs::path script_file = dir() / "script";
    const fs::path transcript = dir() / "transcript";
    const fs::path output = dir() / "output";
    write_text_file(script_file, script);
    fs::remove(transcript);
    const bool has_start = ("\n" + script).find("\nstart ") != std::string::npos;
    std::vector<std::string> all = {"--clock", has_start ? "driven" : START, "--transcript",
                                    transcript, "--script"};
    all.push_back(script_file);
    all.insert(all.end(), options.begin(), options.end());
    std::vector<std::string> words = phone_.run(command, all);
    child_process run(words, output, {"TZ=UTC"});
    const std::optional<int> code = run.wait(LIMIT);
    return {code, file_text(output), file_text(transcript)};
}
