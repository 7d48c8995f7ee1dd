#include "support/events.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>

#include "base/unique_handle.h"

using std::chrono::steady_clock;

bool wait_for_change(const std::vector<std::filesystem::path>& watched,
                     const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto deadline = steady_clock::now() + limit;
    const unique_fd notifier(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    for (const auto& path : watched) {
        constexpr uint32_t CHANGES = IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB | IN_MOVE | IN_CREATE |
                                     IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF;
        if (inotify_add_watch(notifier.get(), path.c_str(), CHANGES) < 0) {
            throw std::system_error(errno, std::generic_category(), "watching " + path.string());
        }
    }
    while (!condition()) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd readable{.fd = notifier.get(), .events = POLLIN, .revents = 0};
        poll(&readable, 1, static_cast<int>(left.count()));
        char events[4096];
        while (read(notifier.get(), events, sizeof events) > 0) {
        }
    }
    return true;
}

bool wait_for_file(const std::filesystem::path& path, std::chrono::milliseconds limit) {
    return wait_for_change(
        {path.parent_path()}, [&] { return std::filesystem::exists(path); }, limit);
}
