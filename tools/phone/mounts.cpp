#include "phone/mounts.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

namespace {

namespace fs = std::filesystem;

// Parts of the tree, by the name they have in it and at the root of the phone.
constexpr const char* TREE_PARTS[] = {"data", "sys", "proc", "vendor", "mnt", "dev"};

// What the phone does not show of this machine: what makes up a phone, and the sockets of services.
constexpr const char* HIDDEN_PARTS[] = {".host", ".phone", "run"};

// Where programs outside a phone write into its tree.
constexpr const char* WRITTEN_FROM_OUTSIDE[] = {
    "data",
    "sys",
    "proc",
    "vendor",
    "mnt/vendor/persist/hlos_rfs/shared/vexa",
    "dev/socket/kbr",
    "dev/log",
    "dev/properties",
};

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
            if (exists(dir)) steps->push_back({mount_kind::BIND_RO, dir, dir});
        }
    }
}

// Everything of this machine that the phone has none of: programs, libraries, homes, build trees.
void add_machine(std::vector<mount_step>* steps) {
    for (const fs::directory_entry& entry : fs::directory_iterator("/")) {
        const std::string name = entry.path().filename();
        if (is_one_of(name, TREE_PARTS) || is_one_of(name, HIDDEN_PARTS)) continue;
        std::error_code ignored;
        if (entry.is_symlink(ignored)) {
            steps->push_back({mount_kind::SYMLINK, fs::read_symlink(entry.path()), entry.path()});
        } else if (entry.is_directory(ignored)) {
            steps->push_back({mount_kind::BIND_RO, entry.path(), entry.path()});
        }
    }
}

// Whether the path lies under a name that the phone has for itself.
bool is_hidden(const std::string& path) {
    const std::string top = path.substr(1, path.find('/', 1) - 1);
    return is_one_of(top, TREE_PARTS) || is_one_of(top, HIDDEN_PARTS);
}

// No directory of the machine may take the place of the root or of a part of the phone.
bool is_root_or_part(const fs::path& path) {
    return path == "/" || (path.parent_path() == "/" && is_hidden(path));
}

// Directories that the phone's own parts would hide.
void add_needed(const std::vector<std::string>& directories, std::vector<mount_step>* steps) {
    for (const std::string& path : directories) {
        if (!is_hidden(path) || is_root_or_part(path)) continue;
        const bool twice = std::any_of(steps->begin(), steps->end(),
                                       [&](const mount_step& step) { return step.target == path; });
        if (!twice) steps->push_back({mount_kind::BIND_RO, path, path});
    }
}

// What stays writable of the machine.
void add_writable(const phone_options& options, std::vector<mount_step>* steps) {
    std::vector<std::string> paths = options.writable;
    const char* temporary = getenv("TMPDIR");
    for (const std::string& path :
         {std::string("/tmp"), std::string(temporary ? temporary : ""), options.dir}) {
        if (path.starts_with('/') && !is_hidden(path)) paths.push_back(path);
    }
    for (const std::string& path : paths) {
        const fs::path real = fs::weakly_canonical(path);
        if (!is_root_or_part(real) && exists(real))
            steps->push_back({mount_kind::BIND, real, real});
    }
}

}  // namespace

void phone_refuse_links(const std::string& dir) {
    const size_t end = dir.find_last_not_of('/');
    const fs::path root = dir.substr(0, end + 1);
    const auto refuse = [](const fs::path& path) {
        std::error_code ignored;
        if (fs::is_symlink(path, ignored))
            throw std::runtime_error(path.string() +
                                     " is a symbolic link; a phone and its parts must be none");
    };
    if (!root.empty()) refuse(root);
    for (const char* written : WRITTEN_FROM_OUTSIDE) {
        fs::path path = root;
        for (const fs::path& part : fs::path(written)) refuse(path /= part);
    }
}

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
        steps.push_back({real ? mount_kind::BIND_RO : mount_kind::BIND,
                         real ? machine_proc() : options.dir + "/" + part,
                         std::string("/") + part});
    }
    if (options.host_proc) add_host_sys(&steps);
    for (const char* device : PHONE_DEVICES) {
        const std::string path = std::string("/dev/") + device;
        if (exists(path)) steps.push_back({mount_kind::DEVICE, path, path});
    }
    add_needed(options.also_needed, &steps);
    add_writable(options, &steps);
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
