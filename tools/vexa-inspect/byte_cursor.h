// Reading packed little-endian fields one after the other. Every read is checked against the bytes
// that are left, so a decoder built on it cannot leave its input, whatever the input says.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <type_traits>

#include "upload_reader.h"

class byte_cursor {
  public:
    explicit byte_cursor(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    size_t offset() const { return at_; }
    size_t left() const { return bytes_.size() - at_; }

    // The next sizeof(T) bytes as a number. `field` names it in the message of the upload_error
    // that is thrown when the bytes are not there.
    template <class T>
    T take(const char* field) {
        static_assert(std::is_integral_v<T>);
        need(sizeof(T), field);
        std::make_unsigned_t<T> value = 0;
        for (size_t i = 0; i < sizeof(T); i++) {
            const auto byte = static_cast<std::make_unsigned_t<T>>(bytes_[at_ + i]);
            value = static_cast<std::make_unsigned_t<T>>(value | byte << (8 * i));
        }
        at_ += sizeof(T);
        return static_cast<T>(value);
    }

    // The next `size` bytes as they are.
    std::span<const uint8_t> take_bytes(size_t size, const char* field) {
        need(size, field);
        at_ += size;
        return bytes_.subspan(at_ - size, size);
    }

    // The bytes up to the next zero byte, which is passed over too.
    std::string take_text(const char* field) {
        const auto rest = bytes_.subspan(at_);
        const auto end = std::find(rest.begin(), rest.end(), uint8_t{0});
        if (end == rest.end())
            throw upload_error(upload_place::payload, at_,
                               std::string(field) + " has no zero byte at its end");
        std::string text(rest.begin(), end);
        at_ += text.size() + 1;
        return text;
    }

    // Checks a count that was read just now, `width` bytes wide, before it sizes anything: so many
    // items of at least `min_size` bytes must still fit.
    void check_count(uint64_t count, size_t min_size, size_t width, const char* field) const {
        if (count <= left() / min_size) return;
        throw upload_error(upload_place::payload, at_ - width,
                           std::string(field) + " is " + std::to_string(count) + ", but only " +
                               std::to_string(left()) + " bytes follow");
    }

  private:
    void need(size_t size, const char* field) const {
        if (left() >= size) return;
        throw upload_error(upload_place::payload, at_,
                           "the payload ends inside " + std::string(field));
    }

    std::span<const uint8_t> bytes_;
    size_t at_ = 0;
};
