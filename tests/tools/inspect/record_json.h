// What a record adds to its file's object, as an object of its own.
#pragma once

#include <string>

#include "record_formats.h"

inline std::string record_json(void (*add_json)(const upload_file&, json_stream*),
                               const upload_file& file) {
    std::string text;
    json_stream out([&](std::string_view piece) { text += piece; });
    out.begin_object();
    add_json(file, &out);
    out.end_object();
    return text;
}
