// The platform's system properties.
#pragma once

// Size of a buffer that any value fits, its terminating zero byte included.
enum { PROPERTY_VALUE_MAX = 92 };

// Copies the value of property `key` into `value` (PROPERTY_VALUE_MAX bytes), or `default_value`
// (may be null: empty) when the property does not exist or is empty. Returns the length copied.
// Any thread.
extern "C" int property_get(const char* key, char* value, const char* default_value);

// Sets property `key`. Returns 0, or a negative value on failure. Any thread.
extern "C" int property_set(const char* key, const char* value);
