#include "phone/socket_address.h"

#include <errno.h>
#include <fcntl.h>

#include <string>
#include <system_error>

socket_address::socket_address(const std::filesystem::path& path)
    : dir_(open(path.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
    if (!dir_) throw std::system_error(errno, std::generic_category(), path.parent_path());
    const std::string reached =
        "/proc/self/fd/" + std::to_string(dir_.get()) + "/" + path.filename().string();
    if (reached.size() >= sizeof native_.sun_path)
        throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
    native_.sun_family = AF_UNIX;
    reached.copy(native_.sun_path, sizeof native_.sun_path - 1);
}
