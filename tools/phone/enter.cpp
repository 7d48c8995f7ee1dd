#include "phone/enter.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <stdexcept>
#include <system_error>

#include "phone/file_tree.h"
#include "phone/phone_tree.h"

namespace {

// The new root is built upon a directory that every machine has and no phone takes anything from.
const std::string NEW_ROOT = "/sys";

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

void mount_or_fail(const std::string& source, const std::string& target, const char* type,
                   unsigned long flags, const char* data = nullptr) {
    if (mount(source.c_str(), target.c_str(), type, flags, data) != 0) {
        fail("mount " + source + " on " + target);
    }
}

// A mount namespace of the process's own, with a user namespace around it where the kernel allows
// one.
void unshare_mounts() {
    const std::string uid = std::to_string(getuid());
    const std::string gid = std::to_string(getgid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0) {
        write_text_file("/proc/self/setgroups", "deny");
        write_text_file("/proc/self/uid_map", uid + " " + uid + " 1");
        write_text_file("/proc/self/gid_map", gid + " " + gid + " 1");
    } else if (unshare(CLONE_NEWNS) != 0) {
        fail("this kernel or container allows no mount namespace (unshare)");
    }
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        fail("this system lets user namespaces mount nothing; scripts/setup says more (mount)");
    }
}

void make_mount_point(const std::string& source, const std::string& target) {
    struct stat from = {};
    struct stat at = {};
    if (stat(source.c_str(), &from) != 0) fail(source);
    if (stat(target.c_str(), &at) == 0) return;
    if (S_ISDIR(from.st_mode)) {
        make_directories(target);
    } else {
        write_text_file(target, "");
    }
}

void make_read_only(const std::string& target) {
    // The structure of mount_setattr(2), which older C libraries lack.
    struct {
        uint64_t attr_set = 0x1;  // MOUNT_ATTR_RDONLY
        uint64_t attr_clr = 0;
        uint64_t propagation = 0;
        uint64_t userns_fd = 0;
    } attributes;
    constexpr unsigned RECURSIVE = 0x8000;
    // Old kernels cannot: then the mount stays writable, as it is for this user anyway.
    (void)syscall(SYS_mount_setattr, AT_FDCWD, target.c_str(), RECURSIVE, &attributes,
                  sizeof attributes);
}

std::string tmpfs_options(const phone_options& options) {
    std::string data = "mode=0755";
    if (options.small_bytes > 0) data += ",size=" + std::to_string(options.small_bytes);
    if (options.small_inodes > 0) data += ",nr_inodes=" + std::to_string(options.small_inodes);
    return data;
}

void take_step(const mount_step& step, const phone_options& options) {
    const std::string target = NEW_ROOT + step.target;
    switch (step.kind) {
        case mount_kind::SYMLINK:
            if (symlink(step.source.c_str(), target.c_str()) != 0) fail(target);
            break;
        case mount_kind::BIND:
        case mount_kind::BIND_RO:
        case mount_kind::DEVICE:
        case mount_kind::PROC:
            make_mount_point(step.source, target);
            mount_or_fail(step.source, target, nullptr, MS_BIND | MS_REC);
            if (step.kind == mount_kind::BIND_RO) make_read_only(target);
            break;
        case mount_kind::TMPFS:
            make_directories(target);
            mount_or_fail("phone", target, "tmpfs", MS_NOSUID | MS_NODEV,
                          tmpfs_options(options).c_str());
            break;
        case mount_kind::DIRECTORY:
            make_directories(target);
            break;
    }
}

void change_root() {
    if (chdir(NEW_ROOT.c_str()) != 0) fail(NEW_ROOT);
    // With both names the same the old root lies on top of the new one afterwards and is taken off.
    if (syscall(SYS_pivot_root, ".", ".") != 0) fail("pivot_root");
    if (umount2(".", MNT_DETACH) != 0) fail("umount of the old root");
}

// What stays in a process that entered a phone itself: mounting, for phone_show_host_proc(), and
// what a root user must have to make a user namespace of its own, as bubblewrap does inside.
constexpr uint32_t KEPT_CAPABILITIES = 1u << CAP_SYS_ADMIN | 1u << CAP_SETFCAP;

// Gives up the others, for this process and its children, so that permissions mean something to
// root as well.
void keep_capabilities(uint32_t kept) {
    for (int capability = 0; capability <= CAP_LAST_CAP; ++capability) {
        if (capability < 32 && (kept & 1u << capability) != 0) continue;
        (void)prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
    }
    __user_cap_header_struct header = {.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    __user_cap_data_struct data[2] = {};
    data[0].effective = data[0].permitted = kept;
    if (syscall(SYS_capset, &header, data) != 0) fail("capset");
}

}  // namespace

void phone_enter(const phone_options& options) {
    char cwd[4096];
    const bool has_cwd = getcwd(cwd, sizeof cwd) != nullptr;
    unshare_mounts();
    mount_or_fail("phone", NEW_ROOT, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755");
    phone_options effective = options;
    if (effective.dir.empty()) {
        effective.dir = NEW_ROOT + PHONE_IN_MEMORY;
        phone_create(effective.dir);
    }
    for (const mount_step& step : phone_mounts(effective)) take_step(step, effective);
    change_root();
    keep_capabilities(KEPT_CAPABILITIES);
    if (!has_cwd || chdir(cwd) != 0) (void)!chdir("/");
}

void phone_drop_capabilities() {
    keep_capabilities(0);
}

void phone_show_host_proc() {
    (void)mount(PHONE_HOST_PROC, "/proc", nullptr, MS_BIND | MS_REC, nullptr);
}
