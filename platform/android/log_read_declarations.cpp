// Our declarations for reading log buffers against the platform's own. Nothing here is run: what
// differs does not compile. Ours get other names first, since the same structure cannot be declared
// twice.
#include <cstddef>
#include <type_traits>

#define log_id_t our_log_id_t
#define logger_entry our_logger_entry
#define log_msg our_log_msg
#define logger_list our_logger_list
#define android_name_to_log_id our_name_to_log_id
#define android_logger_list_open our_list_open
#define android_logger_list_read our_list_read
#define android_logger_list_free our_list_free
#define LOG_ID_MAIN OUR_LOG_ID_MAIN
#define LOG_ID_RADIO OUR_LOG_ID_RADIO
#define LOG_ID_EVENTS OUR_LOG_ID_EVENTS
#define LOG_ID_SYSTEM OUR_LOG_ID_SYSTEM
#define LOG_ID_CRASH OUR_LOG_ID_CRASH
#define LOG_ID_STATS OUR_LOG_ID_STATS
#define LOG_ID_SECURITY OUR_LOG_ID_SECURITY
#define LOG_ID_KERNEL OUR_LOG_ID_KERNEL
#define LOG_ID_MAX OUR_LOG_ID_MAX
#define LOGGER_ENTRY_MAX_LEN OUR_LOGGER_ENTRY_MAX_LEN
#include "platform/log_read.h"
#undef log_id_t
#undef logger_entry
#undef log_msg
#undef logger_list
#undef android_name_to_log_id
#undef android_logger_list_open
#undef android_logger_list_read
#undef android_logger_list_free
#undef LOG_ID_MAIN
#undef LOG_ID_RADIO
#undef LOG_ID_EVENTS
#undef LOG_ID_SYSTEM
#undef LOG_ID_CRASH
#undef LOG_ID_STATS
#undef LOG_ID_SECURITY
#undef LOG_ID_KERNEL
#undef LOG_ID_MAX
#undef LOGGER_ENTRY_MAX_LEN

#include <log/log_read.h>

// The functions, with ours in the place of the platform's types.
static_assert(std::is_same_v<decltype(android_name_to_log_id), log_id_t(const char*)>);
static_assert(std::is_same_v<decltype(our_name_to_log_id), our_log_id_t(const char*)>);
static_assert(std::is_same_v<decltype(android_logger_list_open),
                             logger_list*(log_id_t, int, unsigned int, pid_t)>);
static_assert(std::is_same_v<decltype(our_list_open),
                             our_logger_list*(our_log_id_t, int, unsigned int, pid_t)>);
static_assert(std::is_same_v<decltype(android_logger_list_read), int(logger_list*, log_msg*)>);
static_assert(std::is_same_v<decltype(our_list_read), int(our_logger_list*, our_log_msg*)>);
static_assert(std::is_same_v<decltype(android_logger_list_free), void(logger_list*)>);
static_assert(std::is_same_v<decltype(our_list_free), void(our_logger_list*)>);

// The types.
static_assert(sizeof(our_log_id_t) == sizeof(log_id_t));
static_assert(
    std::is_same_v<std::underlying_type_t<our_log_id_t>, std::underlying_type_t<log_id_t>>);
static_assert(sizeof(our_log_msg) == sizeof(log_msg) && alignof(our_log_msg) == alignof(log_msg));
static_assert(sizeof(our_logger_entry) == sizeof(logger_entry));
#define SAME_FIELD(field)                                                              \
    static_assert(offsetof(our_logger_entry, field) == offsetof(logger_entry, field)); \
    static_assert(std::is_same_v<decltype(our_logger_entry::field), decltype(logger_entry::field)>)
SAME_FIELD(len);
SAME_FIELD(hdr_size);
SAME_FIELD(pid);
SAME_FIELD(tid);
SAME_FIELD(sec);
SAME_FIELD(nsec);
SAME_FIELD(lid);
SAME_FIELD(uid);
static_assert(offsetof(our_log_msg, entry) == offsetof(log_msg, entry));

// The constants.
static_assert(int{OUR_LOGGER_ENTRY_MAX_LEN} == LOGGER_ENTRY_MAX_LEN);
#define SAME_ID(id) static_assert(unsigned{OUR_##id} == unsigned{id})
SAME_ID(LOG_ID_MAIN);
SAME_ID(LOG_ID_RADIO);
SAME_ID(LOG_ID_EVENTS);
SAME_ID(LOG_ID_SYSTEM);
SAME_ID(LOG_ID_CRASH);
SAME_ID(LOG_ID_STATS);
SAME_ID(LOG_ID_SECURITY);
SAME_ID(LOG_ID_KERNEL);
SAME_ID(LOG_ID_MAX);
