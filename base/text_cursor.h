// Hand-rolled counterparts of the conversions that scanf formats are made of, for text of known
// length that need not end with a zero byte. Each does to the text what the conversion in its
// comment does, leading blanks and signs included; a number that does not fit is the nearest 64-bit
// value. They are inline because the hottest loops of the daemon consist of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

struct text_cursor {
    const char* at = nullptr;
    const char* end = nullptr;

    text_cursor() = default;
    explicit text_cursor(std::string_view text) : at(text.data()), end(text.data() + text.size()) {}
};

constexpr bool is_blank_char(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

constexpr bool is_digit_char(char c) {
    return static_cast<unsigned char>(c - '0') < 10;
}

// " ": any number of blanks, none included.
inline void skip_blanks(text_cursor* text) {
    while (text->at < text->end && is_blank_char(*text->at)) ++text->at;
}

// Ordinary characters of a format. Returns whether the text goes on with them.
inline bool scan_literal(text_cursor* text, std::string_view literal) {
    const auto left = static_cast<size_t>(text->end - text->at);
    if (left < literal.size() || memcmp(text->at, literal.data(), literal.size()) != 0)
        return false;
    text->at += literal.size();
    return true;
}

// "%<max>s": a word, cut off after `max` characters. Returns false at the end of the text.
inline bool scan_word(text_cursor* text, size_t max, std::string_view* word) {
    skip_blanks(text);
    const char* begin = text->at;
    const auto left = static_cast<size_t>(text->end - begin);
    const char* stop = begin + (left < max ? left : max);
    while (text->at < stop && !is_blank_char(*text->at)) ++text->at;
    *word = {begin, static_cast<size_t>(text->at - begin)};
    return !word->empty();
}

// "%*s"
inline bool skip_word(text_cursor* text) {
    std::string_view ignored;
    return scan_word(text, SIZE_MAX, &ignored);
}

// The number that a run of digits stands for, or UINT64_MAX when it does not fit.
inline uint64_t saturated_digits(const char* at, const char* end) {
    uint64_t sum = 0;
    for (; at < end; ++at) {
        const auto digit = static_cast<uint64_t>(*at - '0');
        if (sum > (UINT64_MAX - digit) / 10) return UINT64_MAX;
        sum = sum * 10 + digit;
    }
    return sum;
}

// The sign and the digits of a number; one that does not fit is UINT64_MAX. Returns false,
// with the value left alone, when there are no digits.
inline bool scan_digits(text_cursor* text, bool* negative, uint64_t* value) {
    constexpr ptrdiff_t ALWAYS_FITS = 19;  // digits
    skip_blanks(text);
    *negative = text->at < text->end && *text->at == '-';
    if (*negative || (text->at < text->end && *text->at == '+')) ++text->at;
    const char* begin = text->at;
    const char* at = begin;
    uint64_t sum = 0;
    for (; at < text->end && is_digit_char(*at); ++at) {
        sum = sum * 10 + static_cast<uint64_t>(*at - '0');
    }
    text->at = at;
    if (at == begin) return false;
    *value = at - begin <= ALWAYS_FITS ? sum : saturated_digits(begin, at);
    return true;
}

// "%lu", "%llu"; a minus sign negates. Narrower ones ("%u", "%hu", "%hhu") keep the low bits.
inline bool scan_unsigned(text_cursor* text, uint64_t* value) {
    bool negative = false;
    if (!scan_digits(text, &negative, value)) return false;
    if (negative && *value != UINT64_MAX) *value = 0 - *value;
    return true;
}

// "%ld"
inline bool scan_signed(text_cursor* text, int64_t* value) {
    bool negative = false;
    uint64_t size = 0;
    if (!scan_digits(text, &negative, &size)) return false;
    if (size > INT64_MAX) {
        *value = negative ? INT64_MIN : INT64_MAX;
    } else {
        *value = negative ? -static_cast<int64_t>(size) : static_cast<int64_t>(size);
    }
    return true;
}

// "%d": as "%ld", of which the low bits are kept.
inline bool scan_int(text_cursor* text, int32_t* value) {
    int64_t wide = 0;
    if (!scan_signed(text, &wide)) return false;
    *value = static_cast<int32_t>(wide);
    return true;
}

// The same for a number of any unsigned type.
template <class T>
bool scan_narrow(text_cursor* text, T* value) {
    uint64_t wide = 0;
    if (!scan_unsigned(text, &wide)) return false;
    *value = static_cast<T>(wide);
    return true;
}

constexpr int hex_digit_value(char c) {
    if (is_digit_char(c)) return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// "%x": a number in hex digits, with or without a sign and "0x", of which the low bits are kept.
// Returns false, with the value left alone, when there are no digits.
inline bool scan_hex(text_cursor* text, uint32_t* value) {
    skip_blanks(text);
    const bool negative = text->at < text->end && *text->at == '-';
    if (negative || (text->at < text->end && *text->at == '+')) ++text->at;
    if (!scan_literal(text, "0x")) (void)scan_literal(text, "0X");
    const char* begin = text->at;
    uint64_t sum = 0;
    for (; text->at < text->end && hex_digit_value(*text->at) >= 0; ++text->at) {
        sum = sum >> 60 ? UINT64_MAX : sum << 4 | static_cast<uint64_t>(hex_digit_value(*text->at));
    }
    if (text->at == begin) return false;
    if (negative && sum != UINT64_MAX) sum = 0 - sum;
    *value = static_cast<uint32_t>(sum);
    return true;
}
