// What an interrupted hand-over left.
#pragma once

#include "framework/row/collector_info.h"

// Deals with finished files "<stem>.<digits>" in `dir`: a whole one is moved to the row's dropbox,
// the open record `prefix` that it was made from deleted before; one that is not whole, or whose
// record has grown since, is removed. One that cannot be moved stays for the next time. Logged.
// Thread: the row's own.
void deliver_finished_files(collector_info* row, const char* dir, const char* prefix);
