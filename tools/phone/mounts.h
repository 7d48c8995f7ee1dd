// What of a phone's tree, and of this machine, is seen where. The one table behind both ways into a
// phone: phone_enter() and vexa-phone.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Character devices of this machine that the phone has too; the tree holds an empty file for each.
inline constexpr const char* PHONE_DEVICES[] = {"null", "zero", "full", "random", "urandom", "tty"};

// Where the machine's own /proc is seen in a phone.
inline constexpr char PHONE_HOST_PROC[] = "/.host/proc";

struct phone_options {
    std::string dir;            // the phone's tree
    bool host_proc = false;     // /proc is this machine's own
    std::string small_dir;      // a directory that lies on a file system of its own; empty: none
    uint64_t small_bytes = 0;   // its size, 0: no limit
    uint64_t small_inodes = 0;  // 0: no limit
    // Directories of this machine that are seen whatever the phone has there, and such that may be
    // written to as well. All others are read-only, but /tmp, $TMPDIR and the tree.
    std::vector<std::string> also_needed;
    std::vector<std::string> writable;
};

enum class mount_kind {
    BIND,       // source is a directory or a file
    BIND_RO,    // the same, read-only
    DEVICE,     // source is a character device
    SYMLINK,    // target becomes a link that says source
    PROC,       // the process file system of the phone's processes; source: that of this machine
    TMPFS,      // a file system of its own (phone_options::small_...)
    DIRECTORY,  // made when missing
};

struct mount_step {
    mount_kind kind;
    std::string source;
    std::string target;  // as seen in the phone
};

// Refuses a phone's tree that is a symbolic link, or has one where its parts are mounted from or
// written to from outside: it would lead these somewhere else. Throws std::runtime_error. Who may
// write to the directories above can still put a link there afterwards.
void phone_refuse_links(const std::string& dir);

// The steps in the order in which they are to be taken, upon an empty root. Throws
// std::runtime_error when options.dir is no phone.
std::vector<mount_step> phone_mounts(const phone_options& options);
