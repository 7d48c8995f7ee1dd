// Files that somebody else delivers under a fixed name, again and again: taking one away without
// losing the next.
#pragma once

#include "base/file_mark.h"

// Deletes the file at `path` if it still is the one that was read. Another one that was put in its
// place since, or the same one written again, stays or is put back under its name. To tell which it
// is, it is renamed to path + ".done" for a moment. Returns 0, also when another file is there now,
// or a negative errno; not logged. Any thread.
int delivered_file_remove(const char* path, const file_mark& read);

// Puts back what a kill in the midst of delivered_file_remove left under the other name, unless a
// newer file has come. To be called before the file is looked for. Any thread.
void delivered_file_restore(const char* path);
