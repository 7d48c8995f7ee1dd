#include "support/gzip.h"

#include <zlib.h>

#include <stdexcept>

std::string gzip(std::string_view data) {
    z_stream z = {};
    if (deflateInit2(&z, -1, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY) != Z_OK) throw std::bad_alloc();
    std::string out(deflateBound(&z, data.size()), '\0');
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    z.avail_in = static_cast<uInt>(data.size());
    z.next_out = reinterpret_cast<Bytef*>(out.data());
    z.avail_out = static_cast<uInt>(out.size());
    deflate(&z, Z_FINISH);
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

std::string gunzip(std::string_view stream) {
    z_stream z = {};
    if (inflateInit2(&z, 31) != Z_OK) throw std::bad_alloc();
    std::string out;
    char piece[65536];
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(stream.data()));
    z.avail_in = static_cast<uInt>(stream.size());
    int state = Z_OK;
    while (state == Z_OK) {
        z.next_out = reinterpret_cast<Bytef*>(piece);
        z.avail_out = sizeof piece;
        state = inflate(&z, Z_NO_FLUSH);
        out.append(piece, sizeof piece - z.avail_out);
    }
    const bool whole = state == Z_STREAM_END && z.avail_in == 0;
    inflateEnd(&z);
    if (!whole) throw std::runtime_error("not one whole gzip stream");
    return out;
}

std::string hex(std::string_view bytes) {
    std::string text;
    for (const unsigned char c : bytes) {
        text += "0123456789abcdef"[c >> 4];
        text += "0123456789abcdef"[c & 15];
    }
    return text;
}

std::string bytes(std::string_view hex) {
    std::string digits, out;
    for (const char c : hex) {
        if (c > ' ') digits += c;
    }
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        out += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    return out;
}
