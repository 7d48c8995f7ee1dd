// The descriptors that a program is started with, whoever started it and however.
#pragma once

#include <cstddef>

// Opens /dev/null for each of the descriptors 0 to 2 that is missing, so that nothing else of the
// program's comes to lie there. Before anything else is opened.
void standard_io_complete();

// Has a write to a pipe or socket whose reader has gone fail instead of ending the process.
void standard_io_ignore_sigpipe();

// Writes the line to standard output if that takes it at once, and drops it otherwise: never waits,
// whatever is there and whoever else writes to it. Lines of at most PIPE_BUF bytes are whole or not
// there. Needs standard_io_ignore_sigpipe. Any thread.
void standard_io_trace(const char* line, size_t len);
