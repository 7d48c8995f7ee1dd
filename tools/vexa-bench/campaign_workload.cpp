#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "bench_phone.h"
#include "campaign/campaign_desc.h"
#include "campaign/campaign_map.h"
#include "host/log_silence.h"
#include "workloads.h"

int bench_campaign(long n) {
    const std::string path = bench_env("BENCH_IN");
    std::ifstream stream(path, std::ios::binary);
    const std::string file{std::istreambuf_iterator<char>(stream), {}};
    const uint8_t* map = nullptr;
    size_t map_length = 0;
    host_log_silence();
    if (!campaign_file_map(__func__, reinterpret_cast<const uint8_t*>(file.data()), file.size(),
                           &map, &map_length)) {
        throw std::runtime_error("no campaign file: " + path);
    }
    for (long i = 0; i < n; ++i) {
        campaign_table table;
        if (!campaignDecode(map, map_length, &table, false)) {
            throw std::runtime_error("damaged: " + path);
        }
    }
    return 0;
}
