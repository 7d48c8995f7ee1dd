#include "framework/files/delivered_file.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <unistd.h>

#include "base/path.h"

namespace {

struct done_path {
    char text[PATH_MAX];
};

// The name under which a file waits to be told from the one that was read; false when it does not
// fit.
bool done_path_of(const char* path, done_path* done) {
    return path_extend(done->text, path, ".done");
}

// Never over a file that has come meanwhile. That one takes the other's place, as its sender wants.
void put_back(const char* done, const char* path) {
    if (renameat2(AT_FDCWD, done, AT_FDCWD, path, RENAME_NOREPLACE) == 0) return;
    if (errno == EEXIST) (void)unlink(done);
}

}  // namespace

int delivered_file_remove(const char* path, const file_mark& read) {
    done_path done;
    if (!done_path_of(path, &done)) return -ENAMETOOLONG;
    if (rename(path, done.text) != 0) return -errno;
    if (file_mark_look(done.text) == read) return remove(done.text) == 0 ? 0 : -errno;
    put_back(done.text, path);
    return 0;
}

void delivered_file_restore(const char* path) {
    done_path done;
    if (done_path_of(path, &done)) put_back(done.text, path);
}
