#include "upload_reader.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "base/unique_handle.h"

namespace {

// Larger than any upload file; bounds what is read of a file that is none.
constexpr size_t FILE_MAX_BYTES = size_t{64} << 20;

std::string located(upload_place place, size_t offset, const std::string& problem) {
    return fmt::format("{} {}: {}", place == upload_place::file ? "offset" : "payload offset",
                       offset, problem);
}

[[noreturn]] void fail(size_t offset, const std::string& problem) {
    throw upload_error(upload_place::file, offset, problem);
}

// Takes the header's fields one after the other; the caller has checked that all 53 bytes are
// there.
class header_fields {
  public:
    explicit header_fields(std::span<const uint8_t, UPLOAD_FILE_HEADER_BYTES> bytes)
        : bytes_(bytes) {}

    template <class T>
    void take(T& field) {
        uint64_t value = 0;
        for (size_t i = 0; i < sizeof(T); i++) value = value << 8 | bytes_[at_++];
        field = static_cast<T>(value);
    }

  private:
    std::span<const uint8_t, UPLOAD_FILE_HEADER_BYTES> bytes_;
    size_t at_ = 0;
};

upload_header parse_header(std::span<const uint8_t, UPLOAD_FILE_HEADER_BYTES> bytes) {
    upload_header header;
    header_fields fields(bytes);
    fields.take(header.header_version);
    fields.take(header.header_len);
    fields.take(header.client_id);
    fields.take(header.data_type);
    fields.take(header.rec_version);
    fields.take(header.realtime_ms);
    fields.take(header.payload_len);
    fields.take(header.header_attr1);
    fields.take(header.header_attr2);
    fields.take(header.uptime_ms);
    fields.take(header.timezone_min);
    fields.take(header.campaign_id);
    fields.take(header.seq);
    return header;
}

void check_header(const upload_header& header, size_t file_size) {
    if (header.header_version != UPLOAD_FILE_HEADER_VERSION)
        fail(0, fmt::format("header version is {}, not {}", header.header_version,
                            UPLOAD_FILE_HEADER_VERSION));
    if (header.header_len != UPLOAD_FILE_HEADER_BYTES)
        fail(4, fmt::format("header length is {}, not {}", header.header_len,
                            UPLOAD_FILE_HEADER_BYTES));
    const size_t behind = file_size - UPLOAD_FILE_HEADER_BYTES;
    if (header.payload_len != behind)
        fail(25, fmt::format("payload length is {}, but {} bytes follow the header",
                             header.payload_len, behind));
}

// One inflate stream, ended when it goes out of scope.
class gzip_inflater {
  public:
    explicit gzip_inflater(std::span<const uint8_t> packed) {
        if (inflateInit2(&stream_, 16 + MAX_WBITS) != Z_OK) throw std::bad_alloc();
        stream_.next_in = const_cast<Bytef*>(packed.data());
        stream_.avail_in = static_cast<uInt>(packed.size());
    }
    ~gzip_inflater() { inflateEnd(&stream_); }
    gzip_inflater(const gzip_inflater&) = delete;
    gzip_inflater& operator=(const gzip_inflater&) = delete;

    // Unpacks the next piece into `out`; returns zlib's result and sets *size to the bytes
    // unpacked.
    int next(std::span<uint8_t> out, size_t* size) {
        stream_.next_out = out.data();
        stream_.avail_out = static_cast<uInt>(out.size());
        const int result = inflate(&stream_, Z_NO_FLUSH);
        *size = out.size() - stream_.avail_out;
        return result;
    }

    size_t bytes_used() const { return stream_.total_in; }
    size_t bytes_left() const { return stream_.avail_in; }
    const char* message() const { return stream_.msg ? stream_.msg : "the stream is cut short"; }

  private:
    z_stream stream_{};
};

std::vector<uint8_t> unpack(std::span<const uint8_t> packed, size_t max_payload) {
    gzip_inflater inflater(packed);
    std::vector<uint8_t> payload;
    std::array<uint8_t, 65536> piece;
    int result = Z_OK;
    while (result == Z_OK) {
        size_t size = 0;
        result = inflater.next(piece, &size);
        if (size > max_payload - payload.size())
            fail(UPLOAD_FILE_HEADER_BYTES,
                 fmt::format("the gzip stream unpacks to more than {} bytes", max_payload));
        payload.insert(payload.end(), piece.begin(), piece.begin() + static_cast<ptrdiff_t>(size));
    }
    const size_t end = UPLOAD_FILE_HEADER_BYTES + inflater.bytes_used();
    if (result != Z_STREAM_END) fail(end, fmt::format("bad gzip stream: {}", inflater.message()));
    if (inflater.bytes_left() > 0)
        fail(end, fmt::format("{} bytes follow the end of the gzip stream", inflater.bytes_left()));
    return payload;
}

std::vector<uint8_t> read_whole(const std::string& path) {
    // Not blocking, so that a FIFO given by mistake is refused and not waited for.
    unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat info {};
    if (!fd || fstat(fd.get(), &info) != 0)
        fail(0, fmt::format("cannot open: {}", strerror(errno)));
    if (!S_ISREG(info.st_mode)) fail(0, "not a regular file");
    std::vector<uint8_t> bytes;
    std::array<uint8_t, 65536> piece;
    for (;;) {
        const ssize_t size = read(fd.get(), piece.data(), piece.size());
        if (size < 0 && errno == EINTR) continue;
        if (size < 0) fail(bytes.size(), fmt::format("cannot read: {}", strerror(errno)));
        if (size == 0) return bytes;
        bytes.insert(bytes.end(), piece.begin(), piece.begin() + size);
        if (bytes.size() > FILE_MAX_BYTES)
            fail(FILE_MAX_BYTES, "the file is larger than any upload file");
    }
}

}  // namespace

upload_error::upload_error(upload_place place, size_t offset, const std::string& problem)
    : std::runtime_error(located(place, offset, problem)), place_(place), offset_(offset) {}

upload_file upload_parse(std::span<const uint8_t> bytes, size_t max_payload) {
    if (bytes.size() < UPLOAD_FILE_HEADER_BYTES)
        fail(bytes.size(),
             fmt::format("the file ends inside the {}-byte header", UPLOAD_FILE_HEADER_BYTES));
    upload_file file;
    file.header = parse_header(bytes.first<UPLOAD_FILE_HEADER_BYTES>());
    check_header(file.header, bytes.size());
    file.payload = unpack(bytes.subspan(UPLOAD_FILE_HEADER_BYTES), max_payload);
    return file;
}

upload_file upload_read(const std::string& path) {
    return upload_parse(read_whole(path));
}
