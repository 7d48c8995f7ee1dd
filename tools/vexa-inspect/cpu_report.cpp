#include "cpu_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <tuple>

#include "cpu_record.h"
#include "sample_times.h"
#include "text.h"

namespace {

using text_row = std::vector<std::string>;
using timed_samples = std::vector<timed_sample<cpu_record_sample>>;

json_object entry_json(const cpu_record_network_entry& entry) {
    return {{"interface_class", entry.interface_class},
            {"uid", entry.uid},
            {"counter_set", entry.counter_set},
            {"rx_bytes", entry.rx_bytes},
            {"tx_bytes", entry.tx_bytes}};
}

json_object process_json(const cpu_record_process& process) {
    json_object network = json_object::array();
    for (const auto& entry : process.network) network.push_back(entry_json(entry));
    return {{"name", process.name},
            {"load_x500", process.load_x500},
            {"cpuset_class", process.cpuset_class},
            {"network", network}};
}

void put_sample(const cpu_record_sample& sample, json_stream* out) {
    out->begin_object();
    out->member("uptime_100ms", sample.uptime_100ms);
    if (sample.timezone_min) out->member("timezone_min", *sample.timezone_min);
    out->member("cpu_count", sample.times.size());
    out->begin_array("cpu_times_ticks");
    for (const auto& times : sample.times) out->value(times.ticks);
    out->end_array();
    out->member("cpu_freq_khz", sample.freq_khz);
    out->member("charge_counter_uah", sample.charge_counter_uah);
    out->member("brightness", sample.brightness);
    out->member("capacity_percent", sample.capacity_percent);
    out->member("charge_status", sample.charge_status);
    out->begin_array("thermal_zones");
    for (const auto& zone : sample.thermal_zones)
        out->value({{"name", zone.name}, {"temp_mdegc", zone.temp_mdegc}});
    out->end_array();
    out->begin_array("network");
    for (const auto& entry : sample.network) out->value(entry_json(entry));
    out->end_array();
    out->begin_array("processes");
    for (const auto& process : sample.processes) out->value(process_json(process));
    out->end_array();
    out->end_object();
}

// The text for a number that stands for something, or the number itself where it stands for
// nothing.
template <size_t N>
std::string named(const char* const (&names)[N], size_t value) {
    return value < N ? names[value] : fmt::format("{}", value);
}

constexpr const char* CHARGE_STATUS_NAMES[] = {"unknown", "charging", "discharging", "not charging",
                                               "full"};
constexpr const char* INTERFACE_NAMES[] = {"none", "wlan", "rmnet", "r_rmnet"};
constexpr const char* COUNTER_SET_NAMES[] = {"background", "foreground"};
constexpr const char* CPUSET_NAMES[] = {"foreground", "background", "top app", "other"};

std::vector<text_column> cpu_columns(size_t cpus) {
    std::vector<text_column> columns = {{"time", text_align::left}};
    for (size_t i = 0; i < cpus; i++) columns.push_back({fmt::format("cpu{}", i)});
    return columns;
}

std::string load_cell(const cpu_record_times* before, const cpu_record_times& after) {
    if (after.ticks == cpu_record_times{}.ticks) return "off";
    const auto load = before ? cpu_load_percent(*before, after) : std::nullopt;
    return load ? fmt::format("{:.0f}", *load) : "-";
}

std::string load_table(const timed_samples& samples) {
    std::vector<text_row> rows;
    const cpu_record_sample* before = nullptr;
    for (const auto& [sample, time] : samples) {
        text_row row = {time};
        for (size_t i = 0; i < sample->times.size(); i++)
            row.push_back(load_cell(before ? &before->times[i] : nullptr, sample->times[i]));
        rows.push_back(row);
        before = sample;
    }
    return "  Load of each CPU since the row above, %\n" +
           text_table(cpu_columns(samples.front().sample->times.size()), rows);
}

std::string frequency_table(const timed_samples& samples) {
    std::vector<text_row> rows;
    for (const auto& [sample, time] : samples) {
        text_row row = {time};
        for (const uint32_t freq_khz : sample->freq_khz)
            row.push_back(fmt::format("{}", freq_khz / 1000));
        rows.push_back(row);
    }
    return "  Frequency of each CPU, MHz\n" +
           text_table(cpu_columns(samples.front().sample->freq_khz.size()), rows);
}

std::string brightness_cell(uint8_t brightness) {
    if (brightness == CPU_BRIGHTNESS_UNKNOWN) return "full or unknown";
    return fmt::format("{}", brightness);
}

std::string capacity_cell(uint8_t capacity_percent) {
    if (capacity_percent == CPU_CAPACITY_UNKNOWN) return "unknown";
    return fmt::format("{}", capacity_percent);
}

std::string battery_table(const timed_samples& samples) {
    std::vector<text_row> rows;
    for (const auto& [sample, time] : samples)
        rows.push_back({time, fmt::format("{:.1f}", sample->charge_counter_uah / 1000.0),
                        capacity_cell(sample->capacity_percent),
                        named(CHARGE_STATUS_NAMES, sample->charge_status),
                        brightness_cell(sample->brightness)});
    return "  Battery and backlight (of 255)\n" + text_table({{"time", text_align::left},
                                                              {"charge mAh"},
                                                              {"level %"},
                                                              {"status", text_align::left},
                                                              {"backlight", text_align::left}},
                                                             rows);
}

// What the samples say of one thermal zone. Zones are told apart by name and, among zones of one
// name, by their order.
struct zone_summary {
    std::vector<int32_t> known_mdegc;
    bool unknown_last = false;
};

std::string temperature(int32_t mdegc) {
    return fmt::format("{:.1f}", mdegc / 1000.0);
}

text_row zone_row(const std::string& name, const zone_summary& zone) {
    const auto& known = zone.known_mdegc;
    if (known.empty()) return {text_printable(name), "unknown"};
    const auto [lowest, highest] = std::minmax_element(known.begin(), known.end());
    return {text_printable(name), zone.unknown_last ? "unknown" : temperature(known.back()),
            temperature(known.front()), temperature(*lowest), temperature(*highest)};
}

std::string temperature_table(const timed_samples& samples) {
    std::map<std::pair<std::string, size_t>, zone_summary> zones;
    std::vector<std::pair<std::string, size_t>> order;
    for (const auto& [sample, time] : samples) {
        std::map<std::string, size_t> seen;
        for (const auto& zone : sample->thermal_zones) {
            const auto key = std::pair(zone.name, seen[zone.name]++);
            const auto [it, is_new] = zones.try_emplace(key);
            if (is_new) order.push_back(key);
            it->second.unknown_last = zone.temp_mdegc == CPU_TEMP_UNKNOWN;
            if (!it->second.unknown_last) it->second.known_mdegc.push_back(zone.temp_mdegc);
        }
    }
    if (order.empty()) return "  No thermal zones\n";
    std::vector<text_row> rows;
    for (const auto& key : order) rows.push_back(zone_row(key.first, zones[key]));
    return "  Temperatures, degrees Celsius\n" +
           text_table({{"zone", text_align::left}, {"last"}, {"first"}, {"lowest"}, {"highest"}},
                      rows);
}

struct traffic {
    cpu_record_network_entry first, last;
};

void add_traffic(const std::vector<cpu_record_network_entry>& entries,
                 std::map<std::tuple<uint16_t, uint8_t, uint8_t>, traffic>* all) {
    for (const auto& entry : entries) {
        // The traffic of a UID stands with its first process; the rows of the others hold none.
        if (entry.rx_bytes == 0 && entry.tx_bytes == 0) continue;
        const auto key = std::tuple(entry.uid, entry.interface_class, entry.counter_set);
        const auto it = all->try_emplace(key, traffic{entry, entry}).first;
        it->second.last = entry;
    }
}

text_row traffic_row(const traffic& item) {
    const auto& [first, last] = item;
    return {fmt::format("{}", last.uid),
            named(INTERFACE_NAMES, last.interface_class),
            named(COUNTER_SET_NAMES, last.counter_set),
            fmt::format("{}", last.rx_bytes),
            fmt::format("{}", last.tx_bytes),
            fmt::format("+{}", last.rx_bytes - first.rx_bytes),
            fmt::format("+{}", last.tx_bytes - first.tx_bytes)};
}

std::string network_table(const timed_samples& samples) {
    std::map<std::tuple<uint16_t, uint8_t, uint8_t>, traffic> all;
    for (const auto& [sample, time] : samples) {
        add_traffic(sample->network, &all);
        for (const auto& process : sample->processes) add_traffic(process.network, &all);
    }
    if (all.empty()) return "  No network traffic\n";
    std::vector<text_row> rows;
    for (const auto& [key, item] : all) rows.push_back(traffic_row(item));
    return "  Network by UID, bytes: total at the end, and growth over the record\n" +
           text_table({{"uid"},
                       {"interface", text_align::left},
                       {"set", text_align::left},
                       {"received"},
                       {"sent"},
                       {"received"},
                       {"sent"}},
                      rows);
}

std::string process_load_cell(uint16_t load_x500) {
    return fmt::format("{}{:.1f}", load_x500 == CPU_LOAD_X500_MAX ? ">" : "",
                       cpu_process_load_percent(load_x500));
}

std::string process_table(const timed_samples& samples, size_t max) {
    const auto has_processes = [](const timed_sample<cpu_record_sample>& timed) {
        return !timed.sample->processes.empty();
    };
    const auto last = std::find_if(samples.rbegin(), samples.rend(), has_processes);
    if (last == samples.rend()) return "  No process block in this record\n";

    auto processes = last->sample->processes;
    std::stable_sort(processes.begin(), processes.end(),
                     [](const auto& a, const auto& b) { return a.load_x500 > b.load_x500; });
    std::vector<text_row> rows;
    for (size_t i = 0; i < std::min(max, processes.size()); i++)
        rows.push_back({process_load_cell(processes[i].load_x500),
                        text_printable(processes[i].name),
                        named(CPUSET_NAMES, processes[i].cpuset_class)});
    return fmt::format(
               "  Highest loads of {} processes at {}, % of one CPU (last of {} process blocks)\n",
               processes.size(), last->time,
               std::count_if(samples.begin(), samples.end(), has_processes)) +
           text_table({{"load"}, {"process", text_align::left}, {"cpuset", text_align::left}},
                      rows);
}

}  // namespace

void cpu_record_add_json(const upload_file& file, json_stream* out) {
    const auto record = cpu_record_decode(file.payload);
    if (record.skipped_bytes > 0) out->member("skipped_bytes", record.skipped_bytes);
    out->begin_array("records");
    for (const auto& sample : record.samples) put_sample(sample, out);
    out->end_array();
}

std::string cpu_record_report(const upload_file& file, const report_options& options) {
    const auto record = cpu_record_decode(file.payload);
    if (record.samples.empty()) return skipped_note(record.skipped_bytes) + "  No samples\n";
    const auto all = add_times(file.header, record.samples);
    const auto shown = thin_out(all, options.max_rows);
    return skipped_note(record.skipped_bytes) + samples_line(all.size(), shown.size()) +
           load_table(shown) + "\n" + frequency_table(shown) + "\n" + battery_table(shown) + "\n" +
           temperature_table(all) + "\n" + network_table(all) + "\n" +
           process_table(all, options.max_processes);
}
