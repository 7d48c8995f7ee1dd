#include "modem/kbr_port.h"

#include <errno.h>
#include <sys/socket.h>

#include <algorithm>

namespace {

constexpr size_t PACKET_MAX = 7 + 65535;
constexpr size_t OUTGOING_MAX = 100000;  // packets; who does not read for so long is cut off
constexpr uint8_t RESULT_FIELD = 0x02;

uint16_t message_id(const std::string& word) {
    return static_cast<uint16_t>(modem_number(word, UINT16_MAX));
}

std::string result(uint16_t failed, uint16_t error) {
    return wire_integer(failed, 2) + wire_integer(error, 2);
}

}  // namespace

kbr_port::kbr_port(modem& loop, std::string name, answer answer_request)
    : loop_(loop), name_(std::move(name)), answer_(std::move(answer_request)) {
    loop_.listen("/dev/socket/kbr/" + name_, [this](unique_fd fd) { accept(std::move(fd)); });
    add_commands();
}

kbr_port::~kbr_port() {
    for (const auto& [id, c] : connections_) loop_.unwatch(c.fd.get());
}

void kbr_port::indicate(uint16_t id, std::vector<wire_field> fields) {
    const std::string packet = wire_compose(
        {.kind = wire_kind::INDICATION, .transaction = 0, .id = id, .fields = std::move(fields)});
    std::vector<uint64_t> everybody;
    for (const auto& [connected, c] : connections_) everybody.push_back(connected);
    for (const uint64_t connected : everybody) send(connected, packet);
}

// ---- Commands

void kbr_port::add_command(const char* word, const char* arguments, const char* help, size_t least,
                           std::function<void(const std::vector<std::string>&)> run) {
    loop_.add_command({.service = name_,
                       .word = word,
                       .arguments = arguments,
                       .help = help,
                       .run = [least, run = std::move(run)](const auto& words) {
                           if (words.size() < least) throw std::invalid_argument("too few words");
                           run(words);
                       }});
}

void kbr_port::add_commands() {
    using words = std::vector<std::string>;
    add_command("refuse", "MSG [TIMES [ERROR]]", "refuse the next requests of that id", 1,
                [this](const words& w) {
                    refusals_[message_id(w[0])] = {
                        .times = w.size() > 1 ? modem_number(w[1]) : 1,
                        .error = w.size() > 2 ? message_id(w[2]) : WIRE_ERROR_INTERNAL};
                });
    add_command("delay", "MSG MS", "answer requests of that id so much later; 0: at once", 2,
                [this](const words& w) {
                    delays_[message_id(w[0])] =
                        std::chrono::milliseconds(modem_number(w[1], 1000L * 86400));
                });
    add_command("mistake", "MSG", "answer the next request of that id with another id", 1,
                [this](const words& w) { mistaken_.insert(message_id(w[0])); });
    add_command("silent", "", "answer nothing", 0, [this](const words&) { silent_ = true; });
    add_command("answer", "", "answer again", 0, [this](const words&) { silent_ = false; });
    add_command("garbage", "", "send packets that are no messages", 0,
                [this](const words&) { send_garbage(); });
    add_command("close", "", "close all connections", 0, [this](const words&) {
        while (!connections_.empty()) close(connections_.begin()->first);
    });
}

void kbr_port::send_garbage() {
    const std::string packets[] = {
        std::string(1, '\x02'),
        std::string(7, '\xff'),
        std::string("\x01\x01\x00\x01\x00\xff\xff", 7),
        std::string("\x02\x00\x00\x06\x00\x03\x00\x01\xff\xff", 10),
        std::string(70000, 'x'),
    };
    for (auto& [id, c] : connections_) {
        for (const std::string& packet : packets) send(id, packet);
    }
}

// ---- Connections

void kbr_port::accept(unique_fd fd) {
    const uint64_t id = ++last_connection_;
    const int number = fd.get();
    connections_[id].fd = std::move(fd);
    loop_.watch(number, POLLIN, [this, id](short revents) { ready(id, revents); });
    log("connected");
}

void kbr_port::close(uint64_t id) {
    const auto found = connections_.find(id);
    if (found == connections_.end()) return;
    loop_.unwatch(found->second.fd.get());
    connections_.erase(found);
    log("disconnected");
}

void kbr_port::ready(uint64_t id, short revents) {
    if (revents & POLLOUT) flush(id);
    if (!(revents & (POLLIN | POLLHUP | POLLERR))) return;
    const auto found = connections_.find(id);
    if (found == connections_.end()) return;
    std::vector<char> packet(PACKET_MAX + 1);
    const ssize_t size = recv(found->second.fd.get(), packet.data(), packet.size(), MSG_DONTWAIT);
    if (size > 0) {
        receive(id, {packet.data(), static_cast<size_t>(size)});
    } else if (size == 0 || (errno != EAGAIN && errno != EINTR)) {
        close(id);
    }
}

// Messages go out in their order, whole; what the other side does not take yet waits.
void kbr_port::send(uint64_t id, std::string packet) {
    const auto found = connections_.find(id);
    if (found == connections_.end()) return;
    found->second.outgoing.push_back(std::move(packet));
    flush(id);
}

void kbr_port::flush(uint64_t id) {
    const auto found = connections_.find(id);
    if (found == connections_.end()) return;
    connection& c = found->second;
    while (!c.outgoing.empty()) {
        const std::string& next = c.outgoing.front();
        if (::send(c.fd.get(), next.data(), next.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) break;
        c.outgoing.pop_front();
    }
    if (c.outgoing.size() > OUTGOING_MAX) c.outgoing.clear();
    const short events = c.outgoing.empty() ? POLLIN : POLLIN | POLLOUT;
    loop_.watch(c.fd.get(), events, [this, id](short revents) { ready(id, revents); });
}

// ---- Requests

void kbr_port::receive(uint64_t id, std::string_view packet) {
    wire_message request;
    try {
        request = wire_parse(packet);
        if (request.kind != wire_kind::REQUEST) throw std::runtime_error("no request");
    } catch (const std::exception& error) {
        log(std::string("not understood: ") + error.what());
        return;
    }
    if (silent_) {
        log("message " + std::to_string(request.id) + " left without an answer");
        return;
    }
    const auto delay = delays_.find(request.id);
    if (delay == delays_.end() || delay->second.count() == 0) {
        respond(id, request);
    } else {
        loop_.after(delay->second, [this, id, request] { respond(id, request); });
    }
}

void kbr_port::respond(uint64_t id, const wire_message& request) {
    wire_message response = response_to(request);
    if (mistaken_.erase(request.id) > 0) response.id ^= 0x100;
    send(id, wire_compose(response));
}

wire_message kbr_port::response_to(const wire_message& request) {
    wire_message response = {.kind = wire_kind::RESPONSE,
                             .transaction = request.transaction,
                             .id = request.id,
                             .fields = {{RESULT_FIELD, result(0, 0)}}};
    const auto refuse = [&](uint16_t error, const std::string& why) {
        log("message " + std::to_string(request.id) + " refused: " + why);
        response.fields = {{RESULT_FIELD, result(1, error)}};
        return response;
    };
    refusal& told = refusals_[request.id];
    if (told.times > 0) {
        --told.times;
        return refuse(told.error, "as told");
    }
    try {
        for (wire_field& field : answer_(request)) response.fields.push_back(std::move(field));
    } catch (const wire_refusal& refused) {
        return refuse(refused.error(), refused.what());
    } catch (const std::runtime_error& malformed) {
        return refuse(WIRE_ERROR_MALFORMED, malformed.what());
    }
    return response;
}
