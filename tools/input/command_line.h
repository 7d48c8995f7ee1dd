// Errors of a command line, which may have come from a script that put names from outside into it.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "input/printable_text.h"

// For CLI::App::failure_message.
inline std::string printable_failure(const CLI::App*, const CLI::Error& error) {
    return printable_text(error.what()) + "\nRun with --help for more information.\n";
}
