#include "bubblewrap.h"

namespace {

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
            return {"--proc", step.target};
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
    std::vector<std::string> words = {"bwrap", "--unshare-user",   "--unshare-pid", "--cap-drop",
                                      "ALL",   "--die-with-parent"};
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
