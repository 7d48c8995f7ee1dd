// Upload files as the upload agent takes them.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "cpu_record.h"
#include "upload_reader.h"

struct taken_upload {
    std::string name;
    upload_file file;

    cpu_record cpu() const { return cpu_record_decode(file.payload); }
};

// Reads every file in the client's dropbox and deletes it, in the order of the names. Throws when
// one of them is not whole.
std::vector<taken_upload> take_uploads(int client_id);

// Makes the CPU collector sample every 100 ms into upload files of at most `size` bytes.
void deliver_quick_cpu_config(int size);
