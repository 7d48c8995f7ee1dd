// The platform's log. A file that logs defines LOG_TAG before it includes this header.
#pragma once

enum {
    ANDROID_LOG_DEBUG = 3,
    ANDROID_LOG_INFO = 4,
    ANDROID_LOG_ERROR = 6,
};

// Appends one entry to the main log buffer. Returns the number of bytes logged or a negative errno.
// Leaves errno as it was. Any thread; not async-signal-safe.
extern "C" int __android_log_print(int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#define ALOGD(...) ((void)__android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, __VA_ARGS__))
#define ALOGI(...) ((void)__android_log_print(ANDROID_LOG_INFO, LOG_TAG, __VA_ARGS__))
#define ALOGE(...) ((void)__android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__))
