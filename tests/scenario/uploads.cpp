#include "scenario/uploads.h"

#include <filesystem>

#include "scenario/daemon_process.h"
#include "support/files.h"

namespace fs = std::filesystem;

std::vector<taken_upload> take_uploads(int client_id) {
    std::vector<taken_upload> taken;
    const fs::path dir = fs::path(UP_DIR) / std::to_string(client_id);
    if (!fs::exists(dir)) return taken;
    for (const std::string& name : list_dir(dir)) {
        try {
            taken.push_back({name, upload_read(dir / name)});
        } catch (const upload_error& e) {
            throw std::runtime_error(name + ": " + e.what());
        }
        fs::remove(dir / name);
    }
    return taken;
}

void deliver_quick_cpu_config(int size) {
    deliver(
        2, "cpustats.cfg",
        "clientid=2;size=" + std::to_string(size) + ";interval=100;threshold=300000;notify=0\n");
}
