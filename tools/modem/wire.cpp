#include "modem/wire.h"

#include <algorithm>
#include <stdexcept>

namespace {

uint64_t load(std::string_view bytes) {
    uint64_t value = 0;
    for (size_t i = bytes.size(); i-- > 0;) value = value << 8 | static_cast<uint8_t>(bytes[i]);
    return value;
}

// Takes the first `size` bytes off.
std::string_view take(std::string_view* bytes, size_t size, const char* what) {
    if (bytes->size() < size) throw std::runtime_error(std::string("cut off in ") + what);
    const std::string_view taken = bytes->substr(0, size);
    bytes->remove_prefix(size);
    return taken;
}

const std::string& value_of(const wire_message& message, uint8_t type) {
    const auto found = std::find_if(message.fields.begin(), message.fields.end(),
                                    [&](const wire_field& field) { return field.type == type; });
    if (found == message.fields.end())
        throw std::runtime_error("field " + std::to_string(type) + " is missing");
    return found->value;
}

}  // namespace

std::string wire_integer(uint64_t value, size_t size) {
    std::string bytes;
    for (size_t i = 0; i < size; ++i) bytes.push_back(static_cast<char>(value >> (8 * i)));
    return bytes;
}

std::string wire_bytes(std::string_view bytes) {
    return wire_integer(bytes.size(), 2) + std::string(bytes);
}

bool wire_message::has(uint8_t type) const {
    return std::any_of(fields.begin(), fields.end(),
                       [&](const wire_field& field) { return field.type == type; });
}

uint64_t wire_message::integer(uint8_t type, size_t size) const {
    const std::string& value = value_of(*this, type);
    if (value.size() != size)
        throw std::runtime_error("field " + std::to_string(type) + " has " +
                                 std::to_string(value.size()) + " bytes");
    return load(value);
}

std::string wire_message::bytes(uint8_t type, size_t max) const {
    std::string_view value = value_of(*this, type);
    const uint64_t count = load(take(&value, 2, "the length of a byte array"));
    if (count != value.size() || count > max)
        throw std::runtime_error("field " + std::to_string(type) + " says " +
                                 std::to_string(count) + " and has " +
                                 std::to_string(value.size()) + " bytes");
    return std::string(value);
}

wire_message wire_parse(std::string_view packet) {
    wire_message message;
    const uint64_t kind = load(take(&packet, 1, "the kind"));
    if (kind > 2) throw std::runtime_error("of no known kind");
    message.kind = static_cast<wire_kind>(kind);
    message.transaction = static_cast<uint16_t>(load(take(&packet, 2, "the transaction")));
    message.id = static_cast<uint16_t>(load(take(&packet, 2, "the message id")));
    if (load(take(&packet, 2, "the length")) != packet.size())
        throw std::runtime_error("its length is not that of the packet");
    while (!packet.empty()) {
        const auto type = static_cast<uint8_t>(load(take(&packet, 1, "a field's type")));
        const uint64_t size = load(take(&packet, 2, "a field's length"));
        if (!message.fields.empty() && type <= message.fields.back().type)
            throw std::runtime_error("field " + std::to_string(type) + " is out of order");
        message.fields.push_back({type, std::string(take(&packet, size, "a field"))});
    }
    return message;
}

std::string wire_compose(const wire_message& message) {
    std::string fields;
    for (const wire_field& field : message.fields) {
        fields += static_cast<char>(field.type);
        fields += wire_integer(field.value.size(), 2) + field.value;
    }
    return std::string(1, static_cast<char>(message.kind)) + wire_integer(message.transaction, 2) +
           wire_integer(message.id, 2) + wire_integer(fields.size(), 2) + fields;
}
