#include "band_list.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <vector>

#include "byte_cursor.h"
#include "input/bounded_input.h"
#include "text.h"

namespace {

constexpr size_t OWNER_BYTES = 30;
constexpr size_t BAND_LIST_MAX_BYTES = size_t{16} << 20;

uint32_t take_u32(byte_cursor* bytes, bool is_little, const char* field) {
    const auto value = bytes->take<uint32_t>(field);
    return is_little ? value : __builtin_bswap32(value);
}

std::vector<uint8_t> read_whole(const std::string& path) {
    const std::string content = read_bounded_input(path, BAND_LIST_MAX_BYTES);
    return {content.begin(), content.end()};
}

}  // namespace

band_list_header band_list_parse(std::span<const uint8_t> bytes) {
    byte_cursor at(bytes);
    band_list_header header;
    header.is_little = at.take<uint8_t>("byte order") == 1;
    header.structure_version = at.take<uint8_t>("structure version");
    const auto owner = at.take_bytes(OWNER_BYTES, "owner");
    header.owner.assign(owner.begin(), std::find(owner.begin(), owner.end(), 0));
    header.db_id = take_u32(&at, header.is_little, "database id");
    header.contents_version = take_u32(&at, header.is_little, "contents version");
    header.file_bytes = bytes.size();
    return header;
}

std::string band_list_show(const std::string& path, bool json) {
    const band_list_header header = band_list_parse(read_whole(path));
    if (json) {
        const json_object object = {{"file", path},
                                    {"is_little", header.is_little},
                                    {"st_v", header.structure_version},
                                    {"owner_n", text_printable(header.owner)},
                                    {"db_id", header.db_id},
                                    {"cont_v", header.contents_version},
                                    {"bytes", header.file_bytes}};
        return json_text(object);
    }
    return fmt::format(
        "{}: band list {:08X} of \"{}\", contents version {}, structure version {}, {}-endian, "
        "{} bytes",
        text_printable(path), header.db_id, text_printable(header.owner), header.contents_version,
        header.structure_version, header.is_little ? "little" : "big", header.file_bytes);
}
