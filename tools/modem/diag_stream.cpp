#include "modem/diag_stream.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <stdexcept>

#include "host/diag_wire.h"

namespace {

constexpr size_t HEADER_SIZE = sizeof(diag_packet_header);
constexpr size_t PACKET_MAX = DIAG_WIRE_PACKET_MAX - 1;  // the kind takes a byte
constexpr int BATCH = 256;  // packets sent before the loop may look at something else

// A wire packet of the stream: kind, header, and bytes that count up from the sequence number.
void compose(std::string* wire, uint32_t sequence, uint16_t code, size_t size,
             uint64_t time_stamp) {
    wire->resize(1 + size);
    const diag_packet_header header = {.length = static_cast<uint16_t>(size),
                                       .code = code,
                                       .time_stamp = time_stamp,
                                       .sequence = sequence};
    (*wire)[0] = DIAG_WIRE_LOG;
    memcpy(wire->data() + 1, &header, HEADER_SIZE);
    auto next = static_cast<uint8_t>(sequence);
    for (size_t i = 1 + HEADER_SIZE; i <= size; ++i) (*wire)[i] = static_cast<char>(next++);
}

template <class T>
std::string wire_packet(uint8_t kind, T value) {
    std::string bytes(1 + sizeof value, static_cast<char>(kind));
    memcpy(bytes.data() + 1, &value, sizeof value);
    return bytes;
}

}  // namespace

size_t diag_stream_size(uint32_t sequence, size_t min, size_t max) {
    // Knuth's multiplicative hash: sizes in no order, the same ones every time.
    return min + (sequence * 2654435761u >> 8) % (max - min + 1);
}

std::string diag_stream_packet(uint32_t sequence, uint16_t code, size_t size, uint64_t time_stamp) {
    std::string wire;
    compose(&wire, sequence, code, size, time_stamp);
    return wire.substr(1);
}

diag_stream::diag_stream(modem& loop) : loop_(loop) {
    loop_.listen(DIAG_WIRE_SOCKET, [this](unique_fd client) { accept(std::move(client)); });
    add_commands();
}

diag_stream::~diag_stream() = default;

// ---- Commands

void diag_stream::add_commands() {
    using words = std::vector<std::string>;
    const auto add = [this](const char* word, const char* arguments, const char* help, size_t count,
                            const std::function<void(const words&)>& run) {
        loop_.add_command({"diag", word, arguments, help, [count, run](const words& w) {
                               if (w.size() < count)
                                   throw std::invalid_argument("an argument is missing");
                               run(w);
                           }});
    };
    add("rate", "N", "packets a second; 0: as many as the client takes", 1, [this](const words& w) {
        rate_ = modem_number(w[0], 1000000);
        restart();
    });
    add("size", "N [MAX]", "bytes of a packet, its header of 16 included", 1,
        [this](const words& w) { set_size(w); });
    add("count", "N", "send so many packets more, then no more", 1, [this](const words& w) {
        left_ = modem_number(w[0]);
        restart();
    });
    add("status", "CODE", "send a status notification", 1, [this](const words& w) {
        send_status(static_cast<uint32_t>(modem_number(w[0], UINT32_MAX)));
    });
    add("support", "LIST", "peripherals that support DCI, for the next client", 1,
        [this](const words& w) {
            support_list_ = static_cast<uint16_t>(modem_number(w[0], UINT16_MAX));
        });
    add("sent", "", "say what was sent", 0, [this](const words&) { log_sent(); });
    add("close", "", "close the connection", 0, [this](const words&) { drop_client("closed"); });
}

void diag_stream::set_size(const std::vector<std::string>& words) {
    const size_t min = modem_number(words[0], PACKET_MAX);
    const size_t max = words.size() > 1 ? modem_number(words[1], PACKET_MAX) : min;
    if (min < HEADER_SIZE || max < min) throw std::invalid_argument("no such sizes");
    min_size_ = min;
    max_size_ = max;
}

// ---- The client

void diag_stream::accept(unique_fd client) {
    if (client_) drop_client("another client came");
    client_ = std::move(client);
    loop_.log("diag", "connected");
    const std::string hello = wire_packet(DIAG_WIRE_HELLO, support_list_);
    (void)send(client_.get(), hello.data(), hello.size(), MSG_NOSIGNAL);
    loop_.watch(client_.get(), POLLIN, [this](short revents) { ready(revents); });
}

void diag_stream::drop_client(const std::string& why) {
    if (!client_) return;
    loop_.log("diag", why);
    log_sent();
    loop_.unwatch(client_.get());
    client_.reset();
    codes_.clear();
    restart();
}

void diag_stream::ready(short revents) {
    if (revents & (POLLIN | POLLHUP | POLLERR)) {
        uint8_t packet[1024];
        const ssize_t size = recv(client_.get(), packet, sizeof packet, MSG_DONTWAIT);
        if (size == 0 || (size < 0 && errno != EAGAIN && errno != EINTR)) {
            return drop_client("disconnected");
        }
        if (size > 0) take_packet({packet, static_cast<size_t>(size)});
    }
    if (revents & POLLOUT) send_due();
}

void diag_stream::take_packet(std::span<const uint8_t> packet) {
    switch (packet[0]) {
        case DIAG_WIRE_REGISTER: {
            diag_wire_register request;
            if (packet.size() != sizeof request) break;
            memcpy(&request, packet.data(), sizeof request);
            return loop_.log("diag", "registered: processor " + std::to_string(request.proc) +
                                         ", peripherals " + std::to_string(request.peripherals));
        }
        case DIAG_WIRE_CONFIG:
            return set_codes(packet);
        case DIAG_WIRE_RELEASE:
            codes_.clear();
            return loop_.log("diag", "released");
        default:
            break;
    }
    loop_.log("diag", "a packet that makes no sense");
}

void diag_stream::set_codes(std::span<const uint8_t> packet) {
    diag_wire_config request;
    const size_t fixed = sizeof request - sizeof request.codes;
    const size_t size = std::min(packet.size(), sizeof request);
    memcpy(&request, packet.data(), size);
    if (size < fixed || size != fixed + request.count * sizeof request.codes[0]) {
        return loop_.log("diag", "a request for codes that makes no sense");
    }
    std::string text = request.set ? "codes wanted:" : "codes no longer wanted:";
    for (size_t i = 0; i < request.count; ++i) {
        const uint16_t code = request.codes[i];
        std::erase(codes_, code);
        if (request.set) codes_.push_back(code);
        text += " " + std::to_string(code);
    }
    loop_.log("diag", text);
    restart();
}

void diag_stream::send_status(uint32_t status) {
    if (!client_) throw std::runtime_error("nobody is connected");
    const std::string packet = wire_packet(DIAG_WIRE_STATUS, status);
    if (send(client_.get(), packet.data(), packet.size(), MSG_NOSIGNAL) < 0)
        throw std::runtime_error("the client does not take it");
}

// ---- The stream

void diag_stream::log_sent() {
    loop_.log("diag", "sent " + std::to_string(sent_) + " packets, " + std::to_string(sent_bytes_) +
                          " bytes");
}

bool diag_stream::is_streaming() const {
    return client_ && !codes_.empty() && left_ > 0;
}

void diag_stream::restart() {
    if (timer_) loop_.cancel(*timer_);
    timer_.reset();
    if (client_) loop_.watch(client_.get(), POLLIN, [this](short revents) { ready(revents); });
    next_due_ = loop_.now();
    if (is_streaming()) send_due();
}

void diag_stream::send_due() {
    bool room = true;
    for (int i = 0; i < BATCH && room && is_streaming(); ++i) {
        if (rate_ > 0 && next_due_ > loop_.now()) break;
        room = send_one();
        if (room && rate_ > 0) next_due_ += std::chrono::nanoseconds(1000000000 / rate_);
    }
    if (!client_) return;
    // Behind its time, or without a rate, it goes on as soon as there is room.
    const bool waits = !is_streaming() || (rate_ > 0 && next_due_ > loop_.now());
    loop_.watch(client_.get(), static_cast<short>(waits ? POLLIN : POLLIN | POLLOUT),
                [this](short revents) { ready(revents); });
    if (!waits || !is_streaming()) return;
    if (timer_) loop_.cancel(*timer_);
    timer_ =
        loop_.after(std::chrono::ceil<std::chrono::milliseconds>(next_due_ - loop_.now()), [this] {
            timer_.reset();
            send_due();
        });
}

bool diag_stream::send_one() {
    const uint32_t sequence = sequence_ + 1;
    const size_t size = diag_stream_size(sequence, min_size_, max_size_);
    compose(&packet_, sequence, codes_[sequence % codes_.size()], size, loop_.wall_clock_us());
    const ssize_t count = send(client_.get(), packet_.data(), packet_.size(), MSG_NOSIGNAL);
    if (count < 0) {
        if (errno != EAGAIN && errno != EINTR && errno != ENOBUFS) drop_client("disconnected");
        return false;
    }
    sequence_ = sequence;
    ++sent_;
    sent_bytes_ += size;
    if (left_ != UINT64_MAX && --left_ == 0) log_sent();
    return true;
}

std::unique_ptr<modem_service> make_diag_stream(modem& loop) {
    return std::make_unique<diag_stream>(loop);
}
