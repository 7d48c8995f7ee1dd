// Upload files told as text, from the formats' description and nothing else. A line is one of
//
//   u8 1 0xff -1          numbers of 8, 16, 32, 64 bits, little-endian
//   text "a\x1b\n" "b"    characters
//   hex 00ff 12           bytes
//   idle                  what was built under "define idle"
//   3 times u8 0          a line several times
//   lose 2 | cut 2        without the first or the last two bytes
//   at 78 u16 2           over what stands there
//   flip 5                one bit, five bytes before the end
//   header client 5 …     other values in the header of this and later files
//   bound 100             the most bytes that a payload may have
//   rows 3 | processes 2 | dump 32: how much of a long record a report shows
//
// A block begins with "define NAME", which keeps its bytes, or ends in what is asked of them:
//
//   show json|report …    what is read of them as an upload's payload; with "packed" in front they
//                         are compressed already, with "file" they are the whole file
//   show all|head         the header: with the JSON, as the report shows it
//   show cuts             for which lengths the payload is whole
//   show lost             what is read when the first bytes are gone
//   show flips            what becomes of the file when one bit of it is another
//   write NAME            into the directory, as an upload
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "record_formats.h"

class upload_builder {
  public:
    explicit upload_builder(std::filesystem::path dir = {}) : dir_(std::move(dir)) {}

    // Answers a block (support/dialogue.h).
    std::string answer(const std::string& block);

  private:
    using word_list = std::vector<std::string>;

    std::optional<std::string> bytes_of(const std::string& line) const;
    bool edit(const std::string& line, std::string* bytes_so_far) const;
    bool set(const word_list& words);
    std::string take_line(const std::string& line, std::string* all);
    std::string show(const word_list& words, const std::string& bytes) const;
    std::string outcome(const std::string& file, const std::string& form) const;
    std::string upload(const std::string& packed) const;

    std::filesystem::path dir_;
    std::map<std::string, uint64_t> header_ = {{"client", 2},      {"type", 1},
                                               {"version", 6},     {"realtime", 1700000000000},
                                               {"uptime", 360000}, {"timezone", 60}};
    report_options options_;
    size_t bound_ = UPLOAD_PAYLOAD_MAX_BYTES;
    std::map<std::string, std::string> defined_;
};
