#include "phone/host_cpusets.h"

#include <sys/mount.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

#include "phone/file_tree.h"

namespace {

namespace fs = std::filesystem;

constexpr char FOREGROUND[] = "/.host/foreground_cpuset";
constexpr const char* KNOWN_PREFIXES[] = {"/back", "/fore", "/system", "/top"};

bool is_process(const std::string& name) {
    return std::all_of(name.begin(), name.end(), [](unsigned char c) { return isdigit(c); });
}

bool is_in_known_cpuset(const fs::path& file) {
    std::ifstream stream(file);
    std::string cpuset;
    std::getline(stream, cpuset);
    return std::any_of(std::begin(KNOWN_PREFIXES), std::end(KNOWN_PREFIXES),
                       [&](const char* prefix) { return cpuset.starts_with(prefix); });
}

}  // namespace

void phone_overlay_host_cpusets() {
    write_text_file(FOREGROUND, "/foreground\n");
    std::error_code ignored;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc", ignored)) {
        if (!is_process(entry.path().filename())) continue;
        const fs::path file = entry.path() / "cpuset";
        if (is_in_known_cpuset(file)) continue;
        (void)mount(FOREGROUND, file.c_str(), nullptr, MS_BIND, nullptr);
    }
}
