// JSON put out value by value: what is out already takes no memory, so that a document costs that
// of its largest value, however long it is.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

using json_object = nlohmann::ordered_json;

// Gets a text piece by piece.
using text_sink = std::function<void(std::string_view)>;

class json_stream {
  public:
    explicit json_stream(text_sink out) : out_(std::move(out)) {}

    // In an array, or as the whole document.
    void begin_object();
    void value(const json_object& value);

    // In an object.
    void begin_array(const char* key);
    void member(const char* key, const json_object& value);

    void end_object();
    void end_array();

  private:
    void separate();

    text_sink out_;
    bool is_first_ = true;  // of what is open
};

// The value as one line that a terminal shows as it is: ASCII alone, without control characters.
// Names come from the phone and need not be UTF-8; what is not becomes U+FFFD.
std::string json_text(const json_object& value);
