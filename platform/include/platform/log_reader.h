// Owner of a reader of the platform's log.
#pragma once

#include <memory>

#include "platform/log_read.h"

struct logger_list_closer {
    void operator()(logger_list* reader) const { android_logger_list_free(reader); }
};
using unique_logger_list = std::unique_ptr<logger_list, logger_list_closer>;
