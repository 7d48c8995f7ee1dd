// A diagnostics library whose packets and results a test scripts.
#include "platform/diag.h"

#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "platform_test.h"

namespace {

struct script {
    std::mutex mutex;
    std::map<std::string, int, std::less<>> results;  // of the next call of that function
    std::vector<std::string> calls;
    diag_dci_stream_callback callback = nullptr;
    diag_dci_peripherals support_list = 0;

    std::mutex in_callback;  // held while a callback runs
};

// Never destroyed: a thread may call while the process ends.
script& the_script() {
    static script* const only = new script;
    return *only;
}

using guard = std::unique_lock<std::mutex>;

// Notes the call and returns what is scripted for it.
int call(const char* function, const std::string& arguments, int result = DIAG_DCI_NO_ERROR) {
    script& s = the_script();
    const guard held(s.mutex);
    s.calls.push_back(function + arguments);
    const auto scripted = s.results.find(function);
    if (scripted == s.results.end()) return result;
    result = scripted->second;
    s.results.erase(scripted);
    return result;
}

}  // namespace

void platform_test_script_diag(std::string_view function, int result) {
    script& s = the_script();
    const guard held(s.mutex);
    s.results.insert_or_assign(std::string(function), result);
}

void platform_test_set_diag_support_list(uint16_t list) {
    script& s = the_script();
    const guard held(s.mutex);
    s.support_list = list;
}

bool platform_test_diag_packet(std::string packet) {
    script& s = the_script();
    const guard calling(s.in_callback);
    diag_dci_stream_callback callback = nullptr;
    {
        const guard held(s.mutex);
        callback = s.callback;
    }
    if (!callback) return false;
    callback(reinterpret_cast<unsigned char*>(packet.data()), static_cast<int>(packet.size()));
    return true;
}

std::vector<std::string> platform_test_diag_calls() {
    script& s = the_script();
    const guard held(s.mutex);
    return std::exchange(s.calls, {});
}

void platform_test_reset_diag() {
    script& s = the_script();
    const guard held(s.mutex);
    s.results.clear();
    s.calls.clear();
    s.support_list = 0;
}

int Diag_LSM_Init(unsigned char*) {
    return call("init", "", 1);
}

int Diag_LSM_DeInit(void) {
    return call("deinit", "", 1);
}

int diag_register_dci_client(int* client_id, diag_dci_peripherals* list, int proc, void* signo) {
    const int result = call("register", " " + std::to_string(*list) + " " + std::to_string(proc) +
                                            " " + std::to_string(*static_cast<int*>(signo)));
    if (result == DIAG_DCI_NO_ERROR) *client_id = 5;
    return result;
}

int diag_log_stream_config(int client_id, int set, uint16_t* codes, int count) {
    std::string arguments = " " + std::to_string(client_id) + " " + std::to_string(set);
    for (int i = 0; i < count; ++i) arguments += " " + std::to_string(codes[i]);
    return call("config", arguments);
}

int diag_register_dci_stream_proc(int client_id, diag_dci_stream_callback log_callback,
                                  diag_dci_stream_callback) {
    const int result = call("stream", " " + std::to_string(client_id));
    script& s = the_script();
    const guard held(s.mutex);
    if (result == DIAG_DCI_NO_ERROR) s.callback = log_callback;
    return result;
}

int diag_get_dci_support_list_proc(int, diag_dci_peripherals* list) {
    script& s = the_script();
    {
        const guard held(s.mutex);
        *list = s.support_list;
    }
    return call("support", "");
}

int diag_release_dci_client(int* client_id) {
    const int result = call("release", " " + std::to_string(*client_id));
    script& s = the_script();
    {
        const guard held(s.mutex);
        s.callback = nullptr;
    }
    const guard none_runs(s.in_callback);
    return result;
}
