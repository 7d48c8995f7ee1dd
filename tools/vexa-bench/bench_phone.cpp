#include "bench_phone.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/mount.h>

#include <stdexcept>
#include <system_error>

#include "phone/enter.h"

namespace {

void show(const std::string& source, const std::string& target) {
    if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
        throw std::system_error(errno, std::generic_category(), "mount " + source);
    }
}

}  // namespace

std::string bench_env(const char* name) {
    const char* value = getenv(name);
    if (!value) throw std::runtime_error(std::string(name) + " is not set");
    return value;
}

void bench_phone_enter() {
    const std::string tree = bench_env("BENCH_TREE");
    phone_options options;
    options.host_proc = true;
    options.writable = {tree, bench_env("BENCH_OUT")};
    phone_enter(options);
    show(tree + "/sys", "/sys");
    show(tree + "/proc/net", "/proc/self/net");
}
