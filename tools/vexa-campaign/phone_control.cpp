#include "phone_control.h"

#include <errno.h>

#include <system_error>

#include "phone/socket_address.h"

namespace {

constexpr char SOCKET[] = "dev/socket/vexa/vexa-campmgr-s";
constexpr uint32_t ROAMING = 1;
constexpr uint32_t SUBSCRIPTION = 2;

std::string big_endian(uint64_t value, int width) {
    std::string bytes;
    for (int i = width - 1; i >= 0; i--) bytes += static_cast<char>(value >> 8 * i);
    return bytes;
}

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

unique_fd send_message(const std::string& dir, uint32_t id, const std::string& payload) {
    return phone_send_bytes(dir, big_endian(id, 4) + big_endian(payload.size(), 4) + payload);
}

void await_end(const unique_fd& fd) {
    char byte = 0;
    if (recv(fd.get(), &byte, 1, 0) < 0) fail(SOCKET);
}

}  // namespace

unique_fd phone_send_bytes(const std::string& dir, const std::string& bytes) {
    const std::filesystem::path path = std::filesystem::path(dir) / SOCKET;
    const socket_address address(path);
    unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd || connect(fd.get(), address.get(), address.size()) != 0 ||
        send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0)
        fail(path);
    return fd;
}

unique_fd phone_send_roaming(const std::string& dir, bool roaming) {
    return send_message(dir, ROAMING, big_endian(roaming ? 1 : 0, 1));
}

unique_fd phone_send_subscription(const std::string& dir, uint32_t id, uint16_t mcc, uint16_t mnc) {
    return send_message(dir, SUBSCRIPTION,
                        big_endian(id, 4) + big_endian(mcc, 2) + big_endian(mnc, 2));
}

void phone_tell_roaming(const std::string& dir, bool roaming) {
    await_end(phone_send_roaming(dir, roaming));
}

void phone_tell_subscription(const std::string& dir, uint32_t id, uint16_t mcc, uint16_t mnc) {
    await_end(phone_send_subscription(dir, id, mcc, mnc));
}
