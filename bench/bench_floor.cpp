#include "bench_floor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

constexpr size_t HEADER_BYTES = 53;

void require(bool done, const char* what) {
    if (done) return;
    perror(what);
    exit(1);
}

std::vector<uint8_t> read_file(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status {};
    require(fd >= 0 && fstat(fd, &status) == 0, "open");
    std::vector<uint8_t> bytes(static_cast<size_t>(status.st_size));
    require(read(fd, bytes.data(), bytes.size()) == status.st_size, "read");
    close(fd);
    return bytes;
}

// The settings that the upload format fixes.
std::vector<uint8_t> compress_behind_header(std::vector<uint8_t>& plain) {
    z_stream stream{};
    require(deflateInit2(&stream, -1, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY) == Z_OK,
            "deflateInit2");
    std::vector<uint8_t> out(HEADER_BYTES + deflateBound(&stream, plain.size()));
    stream.next_in = plain.data();
    stream.avail_in = static_cast<uInt>(plain.size());
    stream.next_out = out.data() + HEADER_BYTES;
    stream.avail_out = static_cast<uInt>(out.size() - HEADER_BYTES);
    require(deflate(&stream, Z_FINISH) == Z_STREAM_END, "deflate");
    out.resize(HEADER_BYTES + stream.total_out);
    deflateEnd(&stream);
    return out;
}

}  // namespace

void floor_drop(const std::string& path, const std::string& dropped) {
    auto plain = read_file(path);
    const auto out = compress_behind_header(plain);
    const std::string finished = path + ".finished";
    const int fd = open(finished.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    require(fd >= 0, "open");
    floor_append(fd, out);
    require(fsync(fd) == 0, "fsync");
    close(fd);
    require(unlink(path.c_str()) == 0, "unlink");
    require(rename(finished.c_str(), dropped.c_str()) == 0, "rename");
}

void floor_append(int fd, std::span<const uint8_t> bytes) {
    require(write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), "write");
}
