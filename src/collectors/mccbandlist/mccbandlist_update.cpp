#define LOG_TAG "vexastatsd-mbl"

#include "collectors/mccbandlist/mccbandlist_update.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "base/open_file.h"
#include "collectors/mccbandlist/pdc_kbr.h"
#include "platform/log.h"

namespace {

// Reads the header of `file` and, when it is newer than the modem's own, loads it. With no
// connection to the modem yet; the caller ends it.
int update_modem(const owned_bytes& file, const stop_flag& stop, const char* function) {
    mccbandlist_header next;
    if (mccbandlist_read_header(file.bytes.get(), file.length, &next) != 0) {
        ALOGE("%s: read header failed", function);
        return -EINVAL;
    }
    int result = pdc_kbr_init(stop);
    if (result != 0) {
        ALOGE("%s: failed to init kbr. err:%d", function, result);
        return -EINVAL;
    }
    mccbandlist_header current;
    result = mccbandlist_get_mbl_info(next.db_id, &current, stop);
    if (result != 0) {
        ALOGE("%s: failed(%d) to find db_id %08X", function, result, next.db_id);
        return -EINVAL;
    }
    if (!mccbandlist_is_new_ver(current, next)) {
        ALOGE("%s: ignore old or no match file", function);
        return -EINVAL;
    }
    result = mccbandlist_send_to_mmcp(file.bytes.get(), file.length, next.db_id, stop);
    if (result != 0) ALOGE("%s: mccbandlist_send_to_mmcp failed %d", function, result);
    return result;
}

void remove_list(const char* path) {
    const char* name = nullptr;
    const unique_fd dir = open_parent(path, &name);
    if (dir) (void)unlinkat(dir.get(), name, 0);
}

}  // namespace

int mccbandlist_dload_handler(const char* path, const stop_flag& stop) {
    ALOGI("%s: downloaded file : %s", __func__, path);
    owned_bytes file;
    int result = mccbandlist_read_dl_file(path, &file);
    if (result != 0) {
        ALOGE("%s: failed to read dl file. err:%d", __func__, result);
        return -EINVAL;
    }
    result = update_modem(file, stop, __func__);
    remove_list(path);
    ALOGI("%s: removed %s", __func__, path);
    pdc_kbr_clean();
    return result;
}

int mccbandlist_read_dl_file(const char* path, owned_bytes* file) {
    // Without waiting for the other end of a FIFO, which is no file to read.
    const char* name = nullptr;
    const unique_fd dir = open_parent(path, &name);
    const unique_fd fd = dir ? open_text_at(dir.get(), name) : unique_fd();
    if (!fd) {
        ALOGE("Failed to open file: %s %s", path, strerror(errno));
        return -EINVAL;
    }
    struct stat status = {};
    if (fstat(fd.get(), &status) != 0) {
        ALOGE("Failed to fstat file: %s %s", path, strerror(errno));
        return -EINVAL;
    }
    ALOGI("%s file size is %ld bytes", path, static_cast<long>(status.st_size));
    if (!S_ISREG(status.st_mode) || static_cast<uint64_t>(status.st_size) > MCCBANDLIST_FILE_MAX) {
        ALOGE("Failed to read MBL file: %s %s", path, strerror(EFBIG));
        return -EINVAL;
    }
    const auto size = static_cast<size_t>(status.st_size);
    unique_malloc<uint8_t> bytes(static_cast<uint8_t*>(malloc(size + 1)));
    if (!bytes) {
        ALOGE("%s: Failed to allocate memory", __func__);
        return -EINVAL;
    }
    errno = EIO;  // of a file that is shorter by now
    if (read(fd.get(), bytes.get(), size) != status.st_size) {
        ALOGE("Failed to read MBL file: %s %s", path, strerror(errno));
        return -EINVAL;
    }
    ALOGI("Read file : %s, size : %ld", path, static_cast<long>(status.st_size));
    *file = {.length = size, .bytes = std::move(bytes)};
    return 0;
}

int mccbandlist_get_mbl_info(uint32_t db_id, mccbandlist_header* header, const stop_flag& stop) {
    ALOGI("%s: ", __func__);
    const pdc_config_id id = mccbandlist_config_id(db_id);
    for (uint32_t i = 0; i < id.len; ++i)
        ALOGI("%s: pdc_get_config_info with config_id.config_id %02X", __func__, id.bytes[i]);
    pdc_config_info info;
    if (pdc_get_config_info(id, &info, MCCBANDLIST_CONFIG_TYPE, stop) != 0 || !info.header_valid ||
        mccbandlist_read_header(info.header, info.header_len, header) != 0) {
        ALOGE("%s: failed to get config info", __func__);
        return -1;
    }
    ALOGI("%s: succ ", __func__);
    return 0;
}

int mccbandlist_send_to_mmcp(const uint8_t* bytes, size_t size, uint32_t db_id,
                             const stop_flag& stop) {
    ALOGI("%s: mccbandlist_send_to_mmcp ", __func__);
    const pdc_config_id id = mccbandlist_config_id(db_id);
    for (uint32_t i = 0; i < id.len; ++i)
        ALOGI("%s: pdc_load_config_mem with new_config_id.config_id %02X", __func__, id.bytes[i]);
    const int result = pdc_load_config_mem(bytes, size, id, MCCBANDLIST_CONFIG_TYPE, stop);
    if (result != 0) {
        ALOGE("%s: pdc_load_config failed %d", __func__, result);
        return -EINVAL;
    }
    return 0;
}
