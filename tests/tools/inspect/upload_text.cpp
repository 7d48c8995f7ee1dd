#include "upload_text.h"

#include <cstdint>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>

#include "support/dialogue.h"
#include "support/gzip.h"

namespace {

using word_list = std::vector<std::string>;

constexpr size_t HEADER_BYTES = 53;
constexpr size_t LOST_MAX = 15;

std::string number(uint64_t value, size_t width, bool is_big = false) {
    std::string bytes;
    for (size_t i = 0; i < width; ++i)
        bytes += static_cast<char>(value >> 8 * (is_big ? width - 1 - i : i));
    return bytes;
}

uint64_t value_of(const std::string& word) {
    return word[0] == '-' ? static_cast<uint64_t>(std::stoll(word)) : std::stoull(word, nullptr, 0);
}

// The characters between quotes, one string after the other, with \n, \0, \" and \xNN in them.
std::string unquoted(std::string_view text) {
    std::string all;
    bool is_inside = false;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '"') {
            is_inside = !is_inside;
        } else if (text[i] == '\\' && text[i + 1] == 'x') {
            all += bytes(text.substr(i + 2, 2));
            i += 3;
        } else if (text[i] == '\\') {
            ++i;
            all += text[i] == 'n' ? '\n' : text[i] == '0' ? '\0' : text[i];
        } else if (is_inside) {
            all += text[i];
        }
    }
    return all;
}

std::span<const uint8_t> raw(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// What `say` says of 0, 1 and so on, equal ones together.
std::string grouped(size_t first, size_t end, const std::function<std::string(size_t)>& say) {
    std::string text;
    for (size_t from = first; from < end;) {
        const std::string said = say(from);
        size_t to = from;
        while (to + 1 < end && say(to + 1) == said) ++to;
        text +=
            std::to_string(from) + (to > from ? "-" + std::to_string(to) : "") + ": " + said + "\n";
        from = to + 1;
    }
    return text;
}

std::string read_in_short(const std::string& file, size_t lost) try {
    const auto object = nlohmann::json::parse(upload_json("file", upload_parse(raw(file))));
    return std::to_string(object["records"].size()) + " records behind " +
           std::to_string(object.value("skipped_bytes", size_t{0}) + lost) + " bytes";
} catch (const upload_error& error) {
    const std::string what = error.what();
    return what.find("offset ") == what.npos ? what : "refused";
}

std::string json_or_error(const std::string& file) try {
    return upload_json("file", upload_parse(raw(file)));
} catch (const upload_error& error) {
    return error.what();
}

std::string flips(const std::string& file) {
    const std::string good = json_or_error(file);
    return grouped(0, file.size(), [&](size_t at) {
        bool is_refused = false, is_same = false, is_other = false;
        for (int bit = 0; bit < 8; ++bit) {
            std::string damaged = file;
            damaged[at] = static_cast<char>(damaged[at] ^ 1 << bit);
            const std::string found = json_or_error(damaged);
            is_refused |= found[0] != '{';
            is_same |= found == good;
            is_other |= found[0] == '{' && found != good;
        }
        const std::string read = is_other ? "other" : is_same ? "same" : "";
        return (is_refused ? "refused" : "") + std::string(is_refused && is_same ? " or " : "") +
               read;
    });
}

}  // namespace

std::string upload_builder::upload(const std::string& packed) const {
    const auto field = [&](const char* name, size_t width) {
        return number(header_.at(name), width, true);
    };
    return number(7, 4, true) + number(HEADER_BYTES, 4, true) + field("client", 4) +
           field("type", 1) + field("version", 4) + field("realtime", 8) +
           number(packed.size(), 4, true) + "\1\1" + field("uptime", 8) + field("timezone", 2) +
           number(0, 8) + number(1, 4, true) + packed;
}

// What is read of a file, or why it is refused. "all" shows the whole line of JSON; without it the
// header is left out, for its payload length is zlib's affair.
std::string upload_builder::outcome(const std::string& file, const std::string& form) const try {
    const upload_file read = upload_parse(raw(file), bound_);
    if (form == "all" || form == "json") {
        std::string text = upload_json("file", read) + "\n";
        if (form == "json") text.erase(0, text.find("\"payload_b"));
        for (size_t at = 1; (at = text.find("{\"", at)) != text.npos; at += 2)
            text.insert(at, "\n");
        return text;
    }
    const std::string text = upload_report("file", read, options_);
    const size_t head = text.find("\n\n") + 2;
    return form == "head" ? text.substr(0, head) : text.substr(head);
} catch (const upload_error& error) {
    return error.what() + std::string("\n");
}

std::string upload_builder::show(const word_list& words, const std::string& bytes) const {
    std::string text, pack;
    const auto packed = [&](const std::string& from) {
        return pack == "file" ? from : upload(pack == "packed" ? from : gzip(from));
    };
    for (size_t i = 1; i < words.size(); ++i) {
        if (words[i] == "packed" || words[i] == "file") pack = words[i];
        if (words[i] == "all" || words[i] == "json" || words[i] == "head" || words[i] == "report")
            text += outcome(packed(bytes), words[i]);
        if (words[i] == "flips") text += flips(packed(bytes));
        if (words[i] == "cuts")
            text += grouped(0, bytes.size() + 1, [&](size_t size) {
                return read_in_short(packed(bytes.substr(0, size)), 0);
            });
        if (words[i] == "lost")
            text += grouped(1, LOST_MAX + 1, [&](size_t lost) {
                return read_in_short(packed(bytes.substr(lost)), lost);
            });
    }
    return text;
}

// The bytes that a line stands for; nothing when it does something to those before.
std::optional<std::string> upload_builder::bytes_of(const std::string& line) const {
    const word_list words = words_of(line).at(0);
    const std::string& verb = words[0];
    const std::string rest = line.substr(line.find(verb) + verb.size());
    if (const auto known = defined_.find(verb); known != defined_.end()) return known->second;
    if (verb == "text") return unquoted(rest);
    if (verb == "hex") return bytes(rest.substr(0, rest.find(" #")));
    std::string all;
    if (words.size() > 2 && words[1] == "times") {
        const std::string piece = bytes_of(line.substr(line.find("times") + 6)).value();
        for (uint64_t left = value_of(verb); left > 0; --left) all += piece;
        return all;
    }
    if (verb[0] != 'u') return {};
    for (size_t i = 1; i < words.size(); ++i)
        all += number(value_of(words[i]), value_of(verb.substr(1)) / 8);
    return all;
}

bool upload_builder::edit(const std::string& line, std::string* bytes_so_far) const {
    std::string& all = *bytes_so_far;
    const word_list words = words_of(line).at(0);
    const size_t count = words.size() > 1 ? std::strtoul(words[1].c_str(), nullptr, 0) : 0;
    if (words[0] == "lose") {
        all.erase(0, count);
    } else if (words[0] == "cut") {
        all.resize(all.size() - count);
    } else if (words[0] == "flip") {
        all.at(all.size() - count) = static_cast<char>(all[all.size() - count] ^ 1);
    } else if (words[0] == "at") {
        const std::string piece =
            bytes_of(line.substr(line.find(words[1]) + words[1].size())).value();
        all.replace(count, piece.size(), piece);
    } else {
        return false;
    }
    return true;
}

bool upload_builder::set(const word_list& words) {
    if (words[0] == "header") {
        for (size_t i = 2; i < words.size(); i += 2) header_.at(words[i - 1]) = value_of(words[i]);
        return true;
    }
    const std::pair<const char*, size_t*> limits[] = {{"rows", &options_.max_rows},
                                                      {"processes", &options_.max_processes},
                                                      {"dump", &options_.max_hex_bytes},
                                                      {"bound", &bound_}};
    for (const auto& [name, limit] : limits) {
        if (words[0] != name) continue;
        *limit = value_of(words.at(1));
        return true;
    }
    return false;
}

// What a line asks of the bytes, answered.
std::string upload_builder::take_line(const std::string& line, std::string* all) {
    const word_list words = words_of(line).at(0);
    if (const auto more = bytes_of(line)) {
        *all += *more;
    } else if (words[0] == "show") {
        return show(words, *all);
    } else if (words[0] == "write") {
        std::ofstream(dir_ / words.at(1), std::ios::binary) << upload(gzip(*all));
        return std::to_string(all->size()) + " bytes\n";
    } else if (!edit(line, all) && !set(words)) {
        return "what is this: " + line + "\n";
    }
    return "";
}

std::string upload_builder::answer(const std::string& block) {
    std::istringstream in(block);
    std::string name, bytes_so_far, text;
    options_ = {};
    bound_ = UPLOAD_PAYLOAD_MAX_BYTES;
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("define ")) {
            name = line.substr(7);
        } else {
            text += take_line(line, &bytes_so_far);
        }
    }
    if (name.empty()) return text;
    defined_[name] = bytes_so_far;
    return text + std::to_string(bytes_so_far.size()) + " bytes\n";
}
