// Text from outside on its way to a terminal.
#pragma once

#include <cstddef>

// A text grows to at most so many times its length.
inline constexpr size_t PRINTABLE_MAX_GROWTH = 4;

// Copies the text with everything but printable ASCII as \xNN, so that a name cannot steer the
// terminal or pass for a line of its own. Returns the number of bytes copied, without a zero byte;
// what does not fit into `room` is left out, an escape as a whole.
size_t printable_copy(char* out, size_t room, const char* text, size_t len);
