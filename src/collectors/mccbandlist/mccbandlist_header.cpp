#define LOG_TAG "vexastatsd-mbl"

#include "collectors/mccbandlist/mccbandlist_header.h"

#include <errno.h>
#include <string.h>

#include <bit>

#include "platform/log.h"

namespace {

constexpr int MY_ENDIAN = 1;  // little
static_assert(std::endian::native == std::endian::little);

constexpr size_t IS_LITTLE_AT = 0;
constexpr size_t ST_V_AT = 1;
constexpr size_t OWNER_N_AT = 2;
constexpr size_t DB_ID_AT = 32;
constexpr size_t CONT_V_AT = 36;

uint32_t get_u32(const uint8_t* bytes, bool is_little) {
    uint32_t value = 0;
    memcpy(&value, bytes, sizeof value);
    return is_little ? value : __builtin_bswap32(value);
}

}  // namespace

int mccbandlist_read_header(const uint8_t* bytes, size_t size, mccbandlist_header* header) {
    if (!bytes || !header || size < MCCBANDLIST_HEADER_SIZE) {
        ALOGE("%s: wrong param", __func__);
        return -EINVAL;
    }
    ALOGD("%s: my endian %d", __func__, MY_ENDIAN);
    const bool is_little = bytes[IS_LITTLE_AT] == 1;
    *header = {.is_little = is_little,
               .st_v = bytes[ST_V_AT],
               .db_id = get_u32(bytes + DB_ID_AT, is_little),
               .cont_v = get_u32(bytes + CONT_V_AT, is_little)};
    memcpy(header->owner_n, bytes + OWNER_N_AT, MCCBANDLIST_OWNER_SIZE);
    ALOGD("%s: is_little : [%02X]", __func__, header->is_little);
    ALOGD("%s: st_v : [%02X]", __func__, header->st_v);
    ALOGD("%s: owner_n : [%s]", __func__, header->owner_n);
    ALOGD("%s: db_id : [%08X]", __func__, header->db_id);
    ALOGD("%s: cont_v : [%08X]", __func__, header->cont_v);
    return 0;
}

bool mccbandlist_is_new_ver(const mccbandlist_header& current, const mccbandlist_header& next) {
    if (current.st_v != next.st_v) {
        ALOGE("%s: structure_ver not match curr:%d new:%d", __func__, current.st_v, next.st_v);
        return false;
    }
    if (strcmp(current.owner_n, next.owner_n) != 0) {
        ALOGE("%s: owner_name not match curr:%s new:%s", __func__, current.owner_n, next.owner_n);
        return false;
    }
    if (current.cont_v >= next.cont_v) {
        ALOGE("%s: contents_ver not new curr:%ld new:%ld", __func__,
              static_cast<long>(current.cont_v), static_cast<long>(next.cont_v));
        return false;
    }
    return true;
}

pdc_config_id mccbandlist_config_id(uint32_t db_id) {
    pdc_config_id id{.len = sizeof db_id};
    const uint32_t big_endian = __builtin_bswap32(db_id);
    memcpy(id.bytes, &big_endian, sizeof big_endian);
    return id;
}
