// The readers of cores and processes, and the plain decisions about power: texts and what becomes
// of them, in tests/golden/cpu.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <regex>
#include <sstream>
#include <string>

#include "collectors/cpu/cpu_times.h"
#include "collectors/cpu/network_stats.h"
#include "collectors/cpu/power_stats.h"
#include "collectors/cpu/readproc.h"
#include "support/dialogue.h"
#include "support/files.h"

namespace {

// Of four cores; user time of the first and the last. "510*i" stands for so many letters.
std::string times_of(const std::string& text) {
    std::smatch found;
    const bool is_short = std::regex_search(text, found, std::regex("(\\d+)\\*(.)"));
    put_files({{"/proc/stat", is_short ? found.prefix().str() +
                                             std::string(std::stoul(found[1]), found[2].str()[0]) +
                                             found.suffix().str()
                                       : text}});
    cpu_times slots[4] = {};
    const int result = read_cpu_times(slots, 4);
    return std::to_string(result) + ": " + std::to_string(slots[0].user) + " " +
           std::to_string(slots[3].user);
}

// Capacity, charge status and brightness.
std::string power_word_of(const std::string& text) {
    power_values values;
    std::istringstream(text) >> values.capacity_percent >> values.charge_status >>
        values.brightness;
    std::ostringstream word;
    word << std::hex << pack_power_word(values);
    return word.str();
}

// A time and a charge counter a line; the times of those that carry processes.
std::string triggers_of(const std::string& text) {
    power_trigger trigger;
    std::string at;
    std::istringstream in(text);
    for (int64_t now_ms = 0, counter_uAh = 0; in >> now_ms >> counter_uAh;) {
        power_trigger_update(&trigger, static_cast<uint64_t>(now_ms),
                             static_cast<int32_t>(counter_uAh));
        if (trigger.snapshot) at += std::to_string(now_ms) + " ";
    }
    return at;
}

std::string process_of(const std::string& text) {
    vexa_proc_entry entry = {};
    parse_proc_stat(text, &entry);
    return "\"" + std::string(entry.name) + "\" " + (entry.state ? entry.state : '-') + " " +
           std::to_string(entry.ppid) + " " + std::to_string(entry.user_time) + " " +
           std::to_string(entry.child_system_time);
}

std::string traffic_of(const std::string& text) {
    put_files({{"/proc/net/xt_qtaguid/stats", text}});
    if (text == "missing") std::filesystem::remove("/proc/net/xt_qtaguid/stats");
    network_table table;
    network_list list;
    std::ostringstream answer;
    answer << get_network_stats(&table, &list);
    for (const network_node& n : list.nodes)
        answer << "\n"
               << int{n.iface_class} << "/" << n.uid << "/" << int{n.counter_set} << " "
               << n.received << "+" << n.transmitted;
    return answer.str();
}

TEST(CpuSources, TextsOfTheKernelAndWhatBecomesOfThem) {
    const std::map<std::string, std::function<std::string(const std::string&)>> readers = {
        {"cores", [](auto& text) { return std::to_string(parse_cpu_possible(text)); }},
        {"times", times_of},
        {"power", power_word_of},
        {"trigger", triggers_of},
        {"process", process_of},
        {"traffic", traffic_of}};
    // The first word says what the rest is for.
    expect_dialogue("cpu/sources", [&](const std::string& question) {
        const size_t end = question.find_first_of(" \n");
        const std::string text = question.substr(end + 1);
        const bool is_line = question[end] == ' ';
        return readers.at(question.substr(0, end))(is_line ? text.substr(0, text.size() - 1)
                                                           : text) +
               "\n";
    });
}

}  // namespace
