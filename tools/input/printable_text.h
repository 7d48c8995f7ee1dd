// Text from outside in a program's output and messages.
#pragma once

#include <string>
#include <string_view>

// Everything but printable ASCII as \xNN, so that a name cannot steer the terminal.
std::string printable_text(std::string_view bytes);
