#include "conductor/player.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

#include "host/log_file.h"
#include "modem/pdc.h"
#include "phone/phone_tree.h"
#include "vexa-campaign/campaign_text.h"
#include "vexa-campaign/phone_control.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

constexpr char VEXA_DIR[] = "/data/vendor/vexa/";
constexpr char UP_DIR[] = "/data/vendor/vexa/up/";
constexpr char CAMPAIGN_FILE[] = "down/101/cdf.dat";
constexpr char BAND_LIST_FILE[] = "down/51/mccbandlist.bin";

struct signal_name {
    const char* name;
    int number;
};
constexpr signal_name SIGNALS[] = {{"TERM", SIGTERM}, {"INT", SIGINT},   {"HUP", SIGHUP},
                                   {"KILL", SIGKILL}, {"USR1", SIGUSR1}, {"ALRM", SIGALRM}};

// Values are overwritten without truncating first, since a reader may come in between.
// A device, which is a FIFO here, needs a reader.
void overwrite(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    const unique_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0644));
    if (!fd || write(fd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw std::system_error(errno, std::generic_category(), path);
    if (fs::is_regular_file(path)) fs::resize_file(path, text.size());
}

// The text as vexa-campaign takes it.
std::string campaign_bytes(const std::string& text) {
    return campaign_file_bytes(campaign_from_text(text));
}

// "DB VERSION [OWNER [SIZE]]", as the modem's own lists.
std::string band_list_bytes(const std::string& text) {
    std::istringstream words(text);
    uint32_t db_id = 0;
    uint32_t version = 0;
    std::string owner = "vexa";
    size_t size = 0;
    if (!(words >> db_id >> version)) throw std::invalid_argument("no band list: " + text);
    words >> owner >> size;
    return pdc_band_list(db_id, version, owner, size);
}

int signal_number(const std::string& name) {
    for (const signal_name& signal : SIGNALS) {
        if (name == signal.name) return signal.number;
    }
    throw std::invalid_argument("no such signal: " + name);
}

// Two hexadecimal digits are a byte.
std::string bytes_of(std::istream& words) {
    std::string digits, bytes;
    for (std::string word; words >> word;) digits += word;
    for (size_t i = 0; i < digits.size(); i += 2)
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    return bytes;
}

fs::perms mode_of(const std::string& octal) {
    return static_cast<fs::perms>(std::stoi(octal, nullptr, 8));
}

}  // namespace

script_player::script_player(const std::string& dir, script lines,
                             std::function<void(const std::string&)> put,
                             std::function<void(int)> send_signal)
    : dir_(dir),
      script_(std::move(lines)),
      put_(std::move(put)),
      send_signal_(std::move(send_signal)),
      chance_(script_.seed),
      transcript_(dir, script_.about),
      property_watch_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    const std::string properties = dir + "/dev/properties";
    if (inotify_add_watch(property_watch_.get(), properties.c_str(), IN_MOVED_TO) < 0)
        throw std::system_error(errno, std::generic_category(), properties);
}

std::string script_player::path(const std::string& seen_as) const {
    return dir_ + "/" + seen_as;
}

void script_player::follow(conductor* clocks) {
    clocks_ = clocks;
    for (const script_line& line : script_.lines)
        due_.push_back({.line = &line, .next_ns = first_ns(line)});
}

// A time of the day is the next one that the wall clock, in the caller's zone, will show.
int64_t script_player::first_ns(const script_line& line) const {
    constexpr int64_t DAY_NS = 86400 * NS_PER_S;
    const int64_t start = clocks_->boot_ns();
    if (line.kind == script_line::when::AT_ONCE) return start;
    if (line.kind != script_line::when::AT_CLOCK) return start + line.time_ns;
    const time_t now_s = clocks_->real_ns() / NS_PER_S;
    tm local = {};
    localtime_r(&now_s, &local);
    const int64_t of_day = ((local.tm_hour * 60 + local.tm_min) * 60 + local.tm_sec) * NS_PER_S;
    return start + (line.time_ns - of_day % DAY_NS + DAY_NS) % DAY_NS;
}

int64_t script_player::next_ns() {
    int64_t next = DRIVEN_NEVER;
    for (const due_line& due : due_) next = std::min(next, due.next_ns);
    if (!modem_) return next;
    if (const auto timer = modem_->next_timer())
        next = std::min<int64_t>(next, nanoseconds(timer->time_since_epoch()).count());
    return next;
}

// Nobody may have been given the turn since a line that expects so.
void script_player::check_quiet() {
    const quiet_since quiet = std::exchange(quiet_, {});
    if (!quiet.line || clocks_->wakes() == quiet.wakes) return;
    throw script_error(script_.name, quiet.line->number,
                       std::to_string(clocks_->wakes() - quiet.wakes) +
                           " times somebody woke where nobody was to");
}

// One line a time: who waits for what it did comes first.
bool script_player::play_due() {
    const auto due = std::min_element(due_.begin(), due_.end(), [](const auto& a, const auto& b) {
        return a.next_ns < b.next_ns;
    });
    if (due == due_.end() || due->next_ns > clocks_->boot_ns()) return false;
    const script_line& line = *due->line;
    check_quiet();
    due->next_ns =
        line.kind == script_line::when::EVERY ? due->next_ns + line.time_ns : DRIVEN_NEVER;
    if (chance_() % 100 < static_cast<uint64_t>(line.chance_percent)) play(line);
    return true;
}

void script_player::signal_daemon(int signo) {
    const bool is_stop = signo == SIGTERM || signo == SIGINT || signo == SIGHUP || signo == SIGKILL;
    if (is_stop) told_to_stop_ns_ = std::min(told_to_stop_ns_, clocks_->boot_ns());
    send_signal_(signo);
}

void script_player::check_stop(bool is_stalled) const {
    constexpr int64_t STOP_LIMIT_NS = 60 * NS_PER_S;
    if (told_to_stop_ns_ == DRIVEN_NEVER) return;
    if (is_stalled) throw std::runtime_error("the daemon hangs in its stop:" + clocks_->who_runs());
    if (clocks_->boot_ns() - told_to_stop_ns_ > STOP_LIMIT_NS)
        throw std::runtime_error("the daemon does not stop:" + clocks_->who_runs());
}

// The script is over with the last of its lines that come once.
bool script_player::end_if_over() {
    const bool is_over = std::none_of(due_.begin(), due_.end(), [](const due_line& due) {
        return due.line->kind != script_line::when::EVERY && due.next_ns != DRIVEN_NEVER;
    });
    if (due_.empty() || !is_over) return false;
    due_.clear();
    if (told_to_stop_ns_ == DRIVEN_NEVER) signal_daemon(SIGTERM);
    return true;
}

// Each is a rename in their directory; whoever made it has waited since, so the value still stands.
void script_player::note_property_writes() {
    alignas(inotify_event) char events[4096];
    ssize_t len = 0;
    while ((len = read(property_watch_.get(), events, sizeof events)) > 0) {
        for (ssize_t at = 0; at < len;) {
            const auto* event = reinterpret_cast<const inotify_event*>(events + at);
            at += static_cast<ssize_t>(sizeof *event + event->len);
            if (event->len == 0 || event->name[0] == '.') continue;
            property_writes_.push_back(
                transcript_property_write(dir_, event->name, clocks_->real_ns()));
        }
    }
}

bool script_player::serve() {
    note_property_writes();
    if (modem_ && modem_->serve()) return true;
    if (play_due()) return true;
    const auto timer = modem_ ? modem_->next_timer() : std::nullopt;
    if (timer && nanoseconds(timer->time_since_epoch()).count() <= clocks_->boot_ns()) {
        modem_->run_timers();
        return true;
    }
    return end_if_over();
}

void script_player::start_modem() {
    modem_ = std::make_unique<modem>(
        dir_, [this](const std::string& line) { modem_lines_.push_back(line); });
    modem_->use_clock([this] { return steady_clock::time_point(nanoseconds(clocks_->boot_ns())); },
                      [this] { return static_cast<uint64_t>(clocks_->real_ns() / 1000); });
    for (const modem_service_maker make : modem_services()) services_.push_back(make(*modem_));
}

void script_player::tell_modem(const std::string& command) {
    if (command == "up") {
        if (!modem_) start_modem();
        return;
    }
    if (command == "down") {
        services_.clear();
        modem_.reset();
        return;
    }
    if (!modem_ || !modem_->execute(command))
        throw std::invalid_argument("the modem does not take it: " + command);
}

// "roaming 0|1", "sub ID MCC MNC", "bytes HEX", or "more HEX" behind the last of these. The
// connection stays open for the answer, which is its end.
void script_player::tell_phone(const std::string& what) {
    std::istringstream words(what);
    std::string kind;
    words >> kind;
    uint32_t first = 0;
    uint16_t mcc = 0;
    uint16_t mnc = 0;
    if (kind == "roaming" && words >> first) {
        told_.push_back(phone_send_roaming(dir_, first != 0));
    } else if (kind == "sub" && words >> first >> mcc >> mnc) {
        told_.push_back(phone_send_subscription(dir_, first, mcc, mnc));
    } else if (kind == "bytes") {
        told_.push_back(phone_send_bytes(dir_, bytes_of(words)));
    } else if (kind == "more" && !told_.empty()) {
        const std::string bytes = bytes_of(words);
        (void)send(told_.back().get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    } else {
        throw std::invalid_argument("nothing to tell: " + what);
    }
}

// "real=2024-03-31T00:00:00Z": the boot-time clock cannot be set.
void script_player::set_clock(const std::string& spec) {
    const auto clock = clock_spec_parse(spec.data(), spec.size());
    if (!clock || !clock->real_ns || clock->boot_ns || clock->speed)
        throw std::invalid_argument("no time of the wall clock: " + spec);
    clocks_->set_real_ns(*clock->real_ns);
}

// An entry of somebody else's, at level I.
void script_player::append_log(const std::string& buffer, const std::string& tag,
                               const std::string& message) {
    constexpr char INFO = 4;
    const std::string payload = INFO + tag + '\0' + message + '\0';
    const log_entry_header header{.payload_len = static_cast<uint16_t>(payload.size()),
                                  .sec = static_cast<uint32_t>(clocks_->real_ns() / NS_PER_S),
                                  .nsec = static_cast<uint32_t>(clocks_->real_ns() % NS_PER_S)};
    std::ofstream log(path("dev/log/" + buffer), std::ios::binary | std::ios::app);
    log << std::string(reinterpret_cast<const char*>(&header), sizeof header) + payload;
    if (!log.flush()) throw std::invalid_argument("cannot write log " + buffer);
}

// The text of a line, or with "< FILE" that file's content.
std::string script_player::text_of(const script_line& line) const {
    if (!line.text.starts_with("< ")) return line.text;
    const fs::path file = fs::path(script_.name).parent_path() / line.text.substr(2);
    std::ifstream in(file, std::ios::binary);
    if (!in) throw std::invalid_argument("cannot read " + file.string());
    return {std::istreambuf_iterator<char>(in), {}};
}

// As the download agent does: whole, by rename.
void script_player::deliver(const std::string& name, const std::string& bytes) {
    const fs::path target = path(VEXA_DIR + name);
    const fs::path beside = target.parent_path().parent_path() / ".delivered";
    overwrite(beside, bytes);
    fs::create_directories(target.parent_path());
    fs::rename(beside, target);
}

const std::map<std::string, script_player::action> script_player::ACTIONS = {
    {"write", [](auto& p, auto& l) { overwrite(p.path(l.words[0]), p.text_of(l)); }},
    {"deliver", [](auto& p, auto& l) { p.deliver(l.words[0], p.text_of(l)); }},
    {"campaign", [](auto& p, auto& l) { p.deliver(CAMPAIGN_FILE, campaign_bytes(p.text_of(l))); }},
    {"bandlist", [](auto& p, auto& l) { p.deliver(BAND_LIST_FILE, band_list_bytes(l.text)); }},
    {"remove", [](auto& p, auto& l) { fs::remove_all(p.path(l.words[0])); }},
    {"rename", [](auto& p, auto& l) { fs::rename(p.path(l.words[0]), p.path(l.words[1])); }},
    {"link", [](auto& p, auto& l) { fs::create_symlink(l.words[0], p.path(l.words[1])); }},
    {"chmod", [](auto& p, auto& l) { fs::permissions(p.path(l.words[1]), mode_of(l.words[0])); }},
    {"mkdir", [](auto& p, auto& l) { fs::create_directories(p.path(l.words[0])); }},
    {"optin", [](auto& p, auto& l) { fs::create_directories(p.path(UP_DIR + l.words[0])); }},
    {"optout", [](auto& p, auto& l) { fs::remove_all(p.path(UP_DIR + l.words[0])); }},
    {"modem", [](auto& p, auto& l) { p.tell_modem(l.text); }},
    {"expect-quiet",
     [](auto& p, auto& l) {
         p.quiet_ = {&l, p.clocks_->wakes()};
     }},
    {"tell", [](auto& p, auto& l) { p.tell_phone(l.text); }},
    {"clock", [](auto& p, auto& l) { p.set_clock(l.text); }},
    {"log", [](auto& p, auto& l) { p.append_log(l.words[0], l.words[1], l.text); }},
    {"property", [](auto& p, auto& l) { phone_set_property(p.dir_, l.words[0], l.text); }},
    {"snapshot", [](auto& p, auto&) { p.snapshot(); }},
    {"signal", [](auto& p, auto& l) { p.signal_daemon(signal_number(l.words[0])); }},
};

void script_player::play(const script_line& line) try {
    ACTIONS.at(line.action)(*this, line);
} catch (const script_error&) {
    throw;
} catch (const std::exception& error) {
    throw script_error(script_.name, line.number, error.what());
}

void script_player::snapshot() {
    note_property_writes();
    while (modem_ && modem_->serve()) {  // the last one comes after the daemon, which has hung up
    }
    put_(transcript_.next(clocks_->real_ns(), std::exchange(modem_lines_, {}),
                          std::exchange(property_writes_, {})));
}
