#include "phone/mounts.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

namespace {

namespace fs = std::filesystem;

// Parts of the tree, by the name they have in it and at the root of the phone.
constexpr const char* TREE_PARTS[] = {"data", "sys", "proc", "vendor", "mnt", "dev"};

// Directories of this machine that the phone may not write to.
constexpr const char* READ_ONLY_PARTS[] = {"usr", "etc", "boot"};

template <class Names>
bool is_one_of(const std::string& name, const Names& names) {
    return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

// This machine's process file system, also when this process itself is in a phone.
std::string machine_proc() {
    return exists(std::string(PHONE_HOST_PROC) + "/self") ? PHONE_HOST_PROC : "/proc";
}

// Parts of this machine's /sys that a phone on its own /proc shows, where the machine has them.
struct host_sys_part {
    const char* probe;  // a file that tells
    std::vector<std::string> directories;
};
const host_sys_part HOST_SYS_PARTS[] = {
    {"/sys/devices/system/cpu/cpu0/cpufreq/scaling_cur_freq", {"/sys/devices/system/cpu"}},
    {"/sys/class/thermal/thermal_zone0/temp",
     {"/sys/class/thermal", "/sys/devices/virtual/thermal"}},
};

void add_host_sys(std::vector<mount_step>* steps) {
    for (const host_sys_part& part : HOST_SYS_PARTS) {
        if (!exists(part.probe)) continue;
        for (const std::string& dir : part.directories) {
            if (exists(dir)) steps->push_back({mount_kind::BIND, dir, dir});
        }
    }
}

// Everything of this machine that the phone has none of: programs, libraries, homes, build trees.
void add_machine(std::vector<mount_step>* steps) {
    for (const fs::directory_entry& entry : fs::directory_iterator("/")) {
        const std::string name = entry.path().filename();
        if (is_one_of(name, TREE_PARTS) || name == ".host" || name == ".phone") continue;
        std::error_code ignored;
        if (entry.is_symlink(ignored)) {
            steps->push_back({mount_kind::SYMLINK, fs::read_symlink(entry.path()), entry.path()});
        } else if (entry.is_directory(ignored)) {
            const bool read_only = is_one_of(name, READ_ONLY_PARTS);
            steps->push_back(
                {read_only ? mount_kind::BIND_RO : mount_kind::BIND, entry.path(), entry.path()});
        }
    }
}

// Directories that the phone's own parts would hide.
void add_needed(const std::vector<std::string>& directories, std::vector<mount_step>* steps) {
    for (const std::string& path : directories) {
        const size_t end = path.find('/', 1);
        if (end == std::string::npos || !is_one_of(path.substr(1, end - 1), TREE_PARTS)) continue;
        const bool twice = std::any_of(steps->begin(), steps->end(),
                                       [&](const mount_step& step) { return step.target == path; });
        if (!twice) steps->push_back({mount_kind::BIND, path, path});
    }
}

}  // namespace

std::vector<mount_step> phone_mounts(const phone_options& options) {
    for (const char* part : TREE_PARTS) {
        if (!exists(options.dir + "/" + part)) {
            throw std::runtime_error(options.dir + " is no phone: it has no " + part +
                                     "/ (vexa-phone create makes one)");
        }
    }
    std::vector<mount_step> steps;
    add_machine(&steps);
    steps.push_back({mount_kind::PROC, machine_proc(), PHONE_HOST_PROC});
    for (const char* part : TREE_PARTS) {
        const bool real = options.host_proc && std::string(part) == "proc";
        steps.push_back({mount_kind::BIND, real ? machine_proc() : options.dir + "/" + part,
                         std::string("/") + part});
    }
    if (options.host_proc) add_host_sys(&steps);
    for (const char* device : PHONE_DEVICES) {
        const std::string path = std::string("/dev/") + device;
        if (exists(path)) steps.push_back({mount_kind::DEVICE, path, path});
    }
    add_needed(options.also_needed, &steps);
    if (!options.small_dir.empty()) {
        steps.push_back({mount_kind::TMPFS, "", options.small_dir});
        for (const char* path : {"/data/vendor/vexa/up", "/data/vendor/vexa/down"}) {
            if (std::string(path).starts_with(options.small_dir + "/")) {
                steps.push_back({mount_kind::DIRECTORY, "", path});
            }
        }
    }
    return steps;
}
