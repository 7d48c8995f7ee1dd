#include "input/printable_text.h"

#include "base/printable.h"

std::string printable_text(std::string_view bytes) {
    std::string text(PRINTABLE_MAX_GROWTH * bytes.size(), '\0');
    text.resize(printable_copy(text.data(), text.size(), bytes.data(), bytes.size()));
    return text;
}
