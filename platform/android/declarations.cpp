// Our declarations of the platform's functions against the platform's own. Nothing here is run: a
// function declared twice with different types, or a constant with another value, does not compile.
#include <type_traits>

// Ours first; the constants that both name get another name here.
#define ANDROID_LOG_DEBUG OUR_LOG_DEBUG
#define ANDROID_LOG_INFO OUR_LOG_INFO
#define ANDROID_LOG_ERROR OUR_LOG_ERROR
#include "platform/log.h"
#undef ANDROID_LOG_DEBUG
#undef ANDROID_LOG_INFO
#undef ANDROID_LOG_ERROR
#define PROPERTY_VALUE_MAX OUR_PROPERTY_VALUE_MAX
#include "platform/properties.h"
#undef PROPERTY_VALUE_MAX

using our_log_print = decltype(__android_log_print);
using our_property_get = decltype(property_get);
using our_property_set = decltype(property_set);

#include <android/log.h>
#include <cutils/properties.h>

// The format attribute is no part of the type that is compared.
#pragma GCC diagnostic ignored "-Wignored-attributes"
static_assert(std::is_same_v<our_log_print, decltype(__android_log_print)>);
static_assert(std::is_same_v<our_log_print, int(int, const char*, const char*, ...)>);
static_assert(std::is_same_v<our_property_get, decltype(property_get)>);
static_assert(std::is_same_v<our_property_get, int(const char*, char*, const char*)>);
static_assert(std::is_same_v<our_property_set, decltype(property_set)>);
static_assert(std::is_same_v<our_property_set, int(const char*, const char*)>);

static_assert(int{OUR_LOG_DEBUG} == int{ANDROID_LOG_DEBUG});
static_assert(int{OUR_LOG_INFO} == int{ANDROID_LOG_INFO});
static_assert(int{OUR_LOG_ERROR} == int{ANDROID_LOG_ERROR});
static_assert(OUR_PROPERTY_VALUE_MAX == PROPERTY_VALUE_MAX);
