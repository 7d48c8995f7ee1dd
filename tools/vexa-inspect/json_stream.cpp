#include "json_stream.h"

void json_stream::separate() {
    if (!is_first_) out_(",");
    is_first_ = false;
}

void json_stream::begin_object() {
    separate();
    out_("{");
    is_first_ = true;
}

void json_stream::value(const json_object& value) {
    separate();
    out_(json_text(value));
}

void json_stream::begin_array(const char* key) {
    separate();
    out_(json_text(key) + ":[");
    is_first_ = true;
}

void json_stream::member(const char* key, const json_object& value) {
    separate();
    out_(json_text(key) + ":");
    out_(json_text(value));
}

void json_stream::end_object() {
    out_("}");
    is_first_ = false;
}

void json_stream::end_array() {
    out_("]");
    is_first_ = false;
}

std::string json_text(const json_object& value) {
    return value.dump(-1, ' ', true, json_object::error_handler_t::replace);
}
