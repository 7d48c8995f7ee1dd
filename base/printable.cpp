#include "base/printable.h"

size_t printable_copy(char* out, size_t room, const char* text, size_t len) {
    constexpr char DIGITS[] = "0123456789abcdef";
    size_t used = 0;
    for (size_t i = 0; i < len; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const bool is_plain = byte >= 0x20 && byte < 0x7F;
        if (room - used < (is_plain ? 1 : PRINTABLE_MAX_GROWTH)) break;
        if (is_plain) {
            out[used++] = text[i];
            continue;
        }
        out[used++] = '\\';
        out[used++] = 'x';
        out[used++] = DIGITS[byte >> 4];
        out[used++] = DIGITS[byte & 0xF];
    }
    return used;
}
