// The diagnostics library on Linux: one client on a socket that the modem's stand-in listens on
// (docs/platform.md has the form of its packets).
#include "platform/diag.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <utility>

#include "base/unique_handle.h"
#include "host/diag_wire.h"
#include "platform/clock.h"

namespace {

constexpr int CLIENT_ID = 1;
constexpr int DIAG_ERROR = 1002;  // anything but success

struct diag_client {
    unique_fd socket;
    int signo = 0;
    diag_dci_stream_callback log_callback = nullptr;
    pthread_t reader{};
    bool has_reader = false;
    bool registered = false;
};

// One thread at a time calls the library, beside diag_get_dci_support_list_proc. The reader is made
// after what it reads was set, and has ended before that is changed.
constinit diag_client g_client;
std::atomic<bool> g_connected{false};
std::atomic<bool> g_released{false};  // the reader has to end
std::atomic<diag_dci_peripherals> g_support_list{0};

void notify(uint32_t status) {
    sigval value = {};
    value.sival_int = static_cast<int>(status);
    (void)sigqueue(getpid(), g_client.signo, value);
}

// Acts on one packet of the modem; one that is none of the known is passed over.
void handle_packet(unsigned char* packet, size_t size) {
    unsigned char* body = packet + 1;
    const size_t body_size = size - 1;
    switch (packet[0]) {
        case DIAG_WIRE_HELLO: {
            diag_dci_peripherals list = 0;
            if (body_size < sizeof list) return;
            memcpy(&list, body, sizeof list);
            g_support_list = list;
            return;
        }
        case DIAG_WIRE_LOG:
            if (g_client.log_callback) g_client.log_callback(body, static_cast<int>(body_size));
            return;
        case DIAG_WIRE_STATUS: {
            uint32_t status = 0;
            if (body_size < sizeof status) return;
            memcpy(&status, body, sizeof status);
            notify(status);
            return;
        }
        default:
            return;
    }
}

void* read_stream(void*) {
    static unsigned char packet[DIAG_WIRE_PACKET_MAX];
    while (!g_released) {
        pollfd readable{.fd = g_client.socket.get(), .events = POLLIN, .revents = 0};
        if (platform_poll(&readable, 1, -1) < 0) continue;
        const ssize_t size = recv(g_client.socket.get(), packet, sizeof packet, MSG_DONTWAIT);
        if (size < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (size <= 0) break;
        handle_packet(packet, static_cast<size_t>(size));
    }
    if (!g_released) notify(uint32_t{DIAG_STATUS_CLOSED} | DIAG_CON_MPSS);  // the modem has gone
    return nullptr;
}

// Never waits for the modem: one that does not read what it is sent counts as failed.
int send_packet(const void* packet, size_t size) {
    const ssize_t sent = send(g_client.socket.get(), packet, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    return sent == static_cast<ssize_t>(size) ? DIAG_DCI_NO_ERROR : DIAG_ERROR;
}

bool is_client(int client_id) {
    return g_client.registered && client_id == CLIENT_ID;
}

void end_reader() {
    if (!g_client.has_reader) return;
    g_released = true;
    shutdown(g_client.socket.get(), SHUT_RDWR);
    pthread_join(g_client.reader, nullptr);
    g_client.has_reader = false;
}

}  // namespace

int Diag_LSM_Init(unsigned char*) {
    if (g_client.socket) return 0;
    unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) return 0;
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
    static_assert(sizeof DIAG_WIRE_SOCKET <= sizeof address.sun_path);
    memcpy(address.sun_path, DIAG_WIRE_SOCKET, sizeof DIAG_WIRE_SOCKET);
    if (connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return 0;
    g_client.socket = std::move(fd);
    g_connected = true;
    return 1;
}

int Diag_LSM_DeInit(void) {
    end_reader();
    g_connected = false;
    g_support_list = 0;
    g_client.socket.reset();
    g_client.registered = false;
    return 1;
}

int diag_register_dci_client(int* client_id, diag_dci_peripherals* list, int proc, void* signo) {
    if (!g_client.socket || g_client.registered || !client_id || !list || !signo) return DIAG_ERROR;
    diag_wire_register packet = {
        .kind = DIAG_WIRE_REGISTER, .proc = static_cast<uint8_t>(proc), .peripherals = *list};
    const int result = send_packet(&packet, sizeof packet);
    if (result != DIAG_DCI_NO_ERROR) return result;
    g_client.signo = *static_cast<int*>(signo);
    g_client.registered = true;
    *client_id = CLIENT_ID;
    return result;
}

int diag_log_stream_config(int client_id, int set, uint16_t* codes, int count) {
    if (!is_client(client_id) || count < 0 || count > DIAG_WIRE_CODES_MAX || (count > 0 && !codes))
        return DIAG_ERROR;
    diag_wire_config packet = {.kind = DIAG_WIRE_CONFIG,
                               .set = set != 0,
                               .count = static_cast<uint16_t>(count),
                               .codes = {}};
    const size_t codes_size = static_cast<size_t>(count) * sizeof *codes;
    if (count > 0) memcpy(packet.codes, codes, codes_size);
    return send_packet(&packet, offsetof(diag_wire_config, codes) + codes_size);
}

int diag_register_dci_stream_proc(int client_id, diag_dci_stream_callback log_callback,
                                  diag_dci_stream_callback) {
    if (!is_client(client_id) || g_client.has_reader) return DIAG_ERROR;
    g_client.log_callback = log_callback;
    g_released = false;
    if (pthread_create(&g_client.reader, nullptr, read_stream, nullptr) != 0) return DIAG_ERROR;
    g_client.has_reader = true;
    return DIAG_DCI_NO_ERROR;
}

int diag_get_dci_support_list_proc(int proc, diag_dci_peripherals* list) {
    if (proc != 0 || !list || !g_connected) return DIAG_ERROR;
    *list = g_support_list;
    return DIAG_DCI_NO_ERROR;
}

int diag_release_dci_client(int* client_id) {
    if (!client_id || !is_client(*client_id)) return DIAG_ERROR;
    const diag_wire_release packet = {.kind = DIAG_WIRE_RELEASE};
    (void)send_packet(&packet, sizeof packet);  // one that is gone needs no word
    end_reader();
    g_client.registered = false;
    return DIAG_DCI_NO_ERROR;
}
