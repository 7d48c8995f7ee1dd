// Records, configurations, downloads and consent as dialogues (tests/golden/framework): commands to
// the framework, and what comes of them: results, the log, and the files that changed.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>

#include <functional>
#include <map>
#include <numeric>
#include <regex>
#include <set>
#include <sstream>

#include "base/unique_handle.h"
#include "framework/config/dload.h"
#include "framework/record/compress.h"
#include "framework/record/hand_over.h"
#include "framework/row/optout.h"
#include "support/dialogue.h"
#include "support/gzip.h"
#include "support/record_phone.h"

namespace fs = std::filesystem;

namespace {

using words = std::vector<std::string>;

// "own/NAME", "up/NAME", "down/NAME", or a directory alone. "4*d" is dddd, "|" the end of a line,
// "~" a "#".
class framework_phone : public record_phone {
  public:
    std::string answer(const std::string& block) {
        std::string text;
        for (const words& line : words_of(block)) {
            const auto found = COMMANDS.find(line[0]);
            if (found == COMMANDS.end()) return "no such command: " + line[0];
            const std::string result = found->second(*this, line);
            text += result + known(log()) + changes();
        }
        return text;
    }

  private:
    using command = std::function<std::string(framework_phone&, const words&)>;
    static const std::map<std::string, command> COMMANDS;

    // Without the error number of a file that is no good: it is what an earlier call left.
    static std::string known(const std::string& lines) {
        return std::regex_replace(lines, std::regex("(invalid 7 .* err:)[0-9]+"), "$1*");
    }
    // Of a directory's entries, which are in no order.
    std::string sorted_log() {
        std::istringstream lines(log());
        std::set<std::string> sorted;
        for (std::string line; std::getline(lines, line);) sorted.insert(line + "\n");
        return std::accumulate(sorted.begin(), sorted.end(), std::string());
    }

    static fs::path path(const std::string& name) {
        const size_t slash = std::min(name.find('/'), name.size());
        const std::map<std::string, const char*> dirs = {{"own", OWN}, {"up", UP}, {"down", DOWN}};
        return dirs.at(name.substr(0, slash)) + name.substr(slash);
    }

    // The words from the i-th on, as text.
    static std::string text(const words& line, size_t i) {
        std::string all;
        for (; i < line.size(); ++i) {
            const size_t star = line[i].find('*');
            all += star == line[i].npos ? line[i]
                                        : std::string(std::stoul(line[i]), line[i][star + 1]);
            if (i + 1 < line.size()) all += ' ';
        }
        for (char& c : all) c = c == '|' ? '\n' : c == '~' ? '#' : c;
        return all;
    }
    static bool has(const words& line, const char* word) {
        return std::find(line.begin(), line.end(), word) != line.end();
    }
    static std::string result(int64_t value) { return "= " + std::to_string(value) + "\n"; }
    static uint32_t flags(const words& line) {
        return (has(line, "drop") ? WRITE_DROP : 0u) | (has(line, "new") ? WRITE_BEGIN_NEW : 0u);
    }
    std::string pass(const words& line) {
        optout_context context{.table = &row, .count = 1};
        optout_handle(&context, has(line, "shutdown"));
        return "enabled " + std::to_string(row.enabled) + ", terminate " +
               std::to_string(row.terminate) + "\n";
    }
    std::string values() const {
        return "size " + std::to_string(row.size) + ", interval " + std::to_string(row.interval) +
               ", threshold " + std::to_string(row.threshold) + ", notify " +
               std::to_string(row.notify) + ", unsupported " +
               std::to_string(row.no_supported_kernel) + "\n";
    }

    static std::string shown(const std::string& name, const fs::path& file) {
        if (fs::is_symlink(file)) return name + " -> " + fs::read_symlink(file).string();
        if (fs::is_directory(file)) {
            char mode[8];
            snprintf(mode, sizeof mode, "%03o",
                     static_cast<unsigned>(fs::status(file).permissions()) & 0777);
            return name + "/ " + mode;
        }
        if (!fs::is_regular_file(file)) return name + ": no regular file";
        std::string content = file_text(file);
        if (content.find('\0') != content.npos)
            return name + ": " + std::to_string(content.size()) + " bytes";
        for (char& c : content) c = c == '\n' ? '|' : c;
        return name + ": " + content.substr(0, 160);
    }
    std::map<std::string, std::string> files() const {
        std::map<std::string, std::string> all;
        for (const auto& [name, dir] : {std::pair{"own", OWN}, {"up", UP}, {"down", DOWN}}) {
            if (fs::exists(dir)) all[name] = shown(name, dir);
            if (!fs::is_directory(dir)) continue;
            for (const std::string& file : list_dir(dir)) {
                const std::string key = std::string(name) + "/" + file;
                all[key] = shown(key, fs::path(dir) / file);
            }
        }
        try {
            std::istringstream uploads(fs::is_directory(UP) ? dropbox() : "");
            for (std::string line; std::getline(uploads, line);)
                all["up/" + line.substr(0, line.find(' '))] = "up/" + line;
        } catch (const std::exception&) {  // one of them is none
        }
        return all;
    }
    std::string changes() {
        std::string text;
        std::map<std::string, std::string> now = files();
        for (const auto& [name, line] : now)
            if (!seen_.contains(name) || seen_[name] != line) text += line + "\n";
        for (const auto& [name, line] : seen_)
            if (!now.contains(name)) text += name + " is gone\n";
        seen_ = std::move(now);
        return text;
    }
    void afresh() {
        reset();
        row.interval = row.interval_max = 60000;
        row.interval_min = 100;
        row.threshold = row.threshold_min = 300000;
        row.threshold_max = 1900800;
        row.notify = row.no_supported_kernel = row.enabled = row.terminate = 0;
        row.running = 1;
        row.hdr.timezone_min = 0;
        row.cfg_update_handler = vexastats_update_cfg;
        seen_ = files();
    }

    std::map<std::string, std::string> seen_;
};

using phone = framework_phone;
const std::map<std::string, framework_phone::command> framework_phone::COMMANDS = {
    {"afresh", [](phone& p, auto&) { return p.afresh(), ""; }},
    // Files as a neighbour or an earlier run leaves them; the clocks.
    {"put", [](phone&, auto& w) { return write_text_file(path(w[1]), text(w, 2)), ""; }},
    {"remove", [](phone&, auto& w) { return fs::remove_all(path(w[1])), ""; }},
    {"mkdir", [](phone&, auto& w) { return fs::create_directories(path(w[1])), ""; }},
    {"fifo", [](phone&, auto& w) { return mkfifo(path(w[1]).c_str(), 0600), ""; }},
    {"link", [](phone&, auto& w) { return fs::create_symlink(path(w[2]), path(w[1])), ""; }},
    {"move", [](phone&, auto& w) { return fs::rename(path(w[1]), path(w[2])), ""; }},
    {"flip", [](phone&, auto& w) {
         std::string bytes = file_text(path(w[1]));
         bytes.at(std::stoul(w[2])) ^= 1;
         return write_text_file(path(w[1]), bytes), "";
     }},
    {"add", [](phone&, auto& w) {
         return write_text_file(path(w[1]), file_text(path(w[1])) + text(w, 2)), "";
     }},
    {"real", [](phone&, auto& w) { return platform_test_set_real_ms(std::stoll(w[1])), ""; }},
    {"boot", [](phone&, auto& w) { return platform_test_set_boot_ms(std::stoll(w[1])), ""; }},
    {"pass-ms", [](phone&, auto& w) { return platform_test_advance_ms(std::stoll(w[1])), ""; }},
    // Records.
    {"begin",
     [](phone& p, auto& w) {
         return p.begin(has(w, "resume"), has(w, "discard")) ? "" : "no record\n";
     }},
    {"begin-far-away",
     [](phone& p, auto&) {
         const std::string dir(300, 'x');
         record_init_req req{.row = &p.row, .dir = dir.c_str(), .prefix = "teststats.tmp"};
         return vexastats_record_init(&req) ? "" : "no record\n";
     }},
    {"append", [](phone& p, auto& w) { return result(p.append(text({w[1]}, 0), flags(w))); }},
    {"append-nothing", [](phone& p, auto& w) { return result(p.drop(flags(w))); }},
    {"drop", [](phone& p, auto& w) { return result(p.drop(flags(w))); }},
    {"size",
     [](phone& p, auto& w) {
         return result(vexastats_record_size(has(w, "null") ? nullptr : &p.row));
     }},
    {"times",
     [](phone& p, auto&) {
         return "begun " + std::to_string(p.row.hdr.realtime_ms) + ", uptime " +
                std::to_string(p.row.hdr.uptime_ms) + ", zone " +
                std::to_string(p.row.hdr.timezone_min) + "\n";
     }},
    {"header", [](phone&, auto& w) { return hex(file_text(path(w[1])).substr(0, 53)) + "\n"; }},
    {"campaign",
     [](phone& p, auto& w) { return p.row.hdr.campaign_id = std::stoull(w[1], nullptr, 16), ""; }},
    {"zone",
     [](phone& p, auto& w) {
         return p.row.hdr.timezone_min = static_cast<int16_t>(std::stoi(w[1])), "";
     }},
    {"name", [](phone& p, auto& w) { return strcpy(p.row.rec_fname, path(w[1]).c_str()), ""; }},
    {"hand-over",
     [](phone& p, auto&) { return result(move_to_dropbox(&p.row, &p.handle, false)); }},
    {"measure",
     [](phone&, auto& w) {
         size_t count = 0;
         const unique_file file(fopen(path(w[1]).c_str(), "re"));
         const int measured = vexastats_compress(file.get(), nullptr, &count);
         return result(measured) + std::to_string(count) + " bytes\n";
     }},
    // Configurations, downloads, consent.
    {"load",
     [](phone& p, auto& w) {
         const int loaded = vexastats_init_params(has(w, "null") ? nullptr : &p.row);
         return result(loaded) + p.values();
     }},
    {"no-bounds",
     [](phone& p, auto&) {
         p.row.interval_max = p.row.interval_min = p.row.threshold_max = p.row.threshold_min = 0;
         return "";
     }},
    {"no-handler", [](phone& p, auto&) { return p.row.cfg_update_handler = nullptr, ""; }},
    {"request", [](phone& p, auto&) { return result(p.request()); }},
    {"sweep",
     [](phone& p, auto& w) {
         vexastats_dl_cleanup(has(w, "null") ? nullptr : &p.row);
         return p.sorted_log();
     }},
    {"is-enabled",
     [](phone& p, auto& w) {
         return result(vexastats_is_dl_enabled(has(w, "null") ? nullptr : &p.row));
     }},
    {"enabled", [](phone& p, auto& w) { return p.row.enabled = w[1] == "1", ""; }},
    {"terminate", [](phone& p, auto& w) { return p.row.terminate = w[1] == "1", ""; }},
    {"running", [](phone& p, auto& w) { return p.row.running = w[1] == "1", ""; }},
    {"stopping", [](phone& p, auto& w) { return p.row.stop.raised = w[1] == "1", ""; }},
    {"pass", [](phone& p, auto& w) { return p.pass(w); }},
};

class FrameworkDialogue : public testing::TestWithParam<const char*> {};

TEST_P(FrameworkDialogue, Play) {
    framework_phone framework;
    expect_dialogue(std::string("framework/") + GetParam(),
                    [&](const std::string& block) { return framework.answer("afresh\n" + block); });
}

INSTANTIATE_TEST_SUITE_P(Framework, FrameworkDialogue,
                         testing::Values("records", "old_records", "clocks", "left_overs",
                                         "configuration", "downloads", "consent"));

}  // namespace
