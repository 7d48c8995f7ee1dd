#include "bubblewrap.h"

#include <unistd.h>

namespace {

// What root is called inside: the user of a phone's system services. Files see through this, so
// what keeps root from the machine is that the machine is read-only.
constexpr int PHONE_USER = 1000;

// Parts of a process file system that are the machine's and not its processes'. bubblewrap leaves
// them to the owner of the files, which root still is without capabilities.
constexpr const char* MACHINE_PROC_PARTS[] = {"sys",  "sysrq-trigger", "irq", "bus",  "acpi",
                                              "mtrr", "pressure",      "fs",  "scsi", "driver"};

std::vector<std::string> proc_words(const mount_step& step) {
    std::vector<std::string> words = {"--proc", step.target};
    for (const char* part : MACHINE_PROC_PARTS) {
        const std::string name = std::string("/") + part;
        words.insert(words.end(), {"--ro-bind-try", step.source + name, step.target + name});
    }
    return words;
}

std::vector<std::string> step_words(const mount_step& step, const phone_options& options) {
    switch (step.kind) {
        case mount_kind::BIND:
            return {"--bind", step.source, step.target};
        case mount_kind::BIND_RO:
            return {"--ro-bind", step.source, step.target};
        case mount_kind::DEVICE:
            return {"--dev-bind", step.source, step.target};
        case mount_kind::SYMLINK:
            return {"--symlink", step.source, step.target};
        case mount_kind::PROC:
            return proc_words(step);
        case mount_kind::DIRECTORY:
            return {"--dir", step.target};
        case mount_kind::TMPFS:
            if (options.small_bytes == 0) return {"--tmpfs", step.target};
            return {"--size", std::to_string(options.small_bytes), "--tmpfs", step.target};
    }
    return {};
}

}  // namespace

std::vector<std::string> bubblewrap_words(const std::vector<mount_step>& steps,
                                          const phone_options& options,
                                          const std::vector<std::string>& command) {
    // A user namespace and no capabilities also for root, so that permissions mean something.
    // A session of its own, since who has the caller's terminal can type into it.
    std::vector<std::string> words = {"bwrap", "--unshare-user",    "--unshare-pid", "--cap-drop",
                                      "ALL",   "--die-with-parent", "--new-session"};
    if (geteuid() == 0) {
        words.insert(words.end(),
                     {"--uid", std::to_string(PHONE_USER), "--gid", std::to_string(PHONE_USER)});
    }
    // Until the command begins, for phone_overlay_host_cpusets(); and to give both up for good.
    if (options.host_proc) {
        words.insert(words.end(), {"--cap-add", "CAP_SYS_ADMIN", "--cap-add", "CAP_SETPCAP"});
    }
    for (const mount_step& step : steps) {
        for (std::string& word : step_words(step, options)) words.push_back(std::move(word));
    }
    words.emplace_back("--");
    words.insert(words.end(), command.begin(), command.end());
    return words;
}
