// Questions and their answers as text that is written to be read: tests/golden/NAME.txt. Lines that
// begin with ">" ask, the indented lines below are the answer, lines that begin with "#" are
// remarks.
//
//   # The longest value has 91 bytes.
//   > set vendor.long 92*v
//     -22
//
// With VEXA_WRITE_TRANSCRIPTS=1 the answers are written instead of compared, so that a change of
// behaviour is a difference to be read.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

// Answers a question, which has its lines without the marks. Both end in a newline.
using answerer = std::function<std::string(const std::string& question)>;

// Asks all questions of the file in their order; a difference fails the test.
void expect_dialogue(const std::string& name, const answerer& answer);

// Where two texts begin to differ, and the question above it, for a message that can be read;
// nothing when they do not.
std::string text_difference(const std::string& expected, const std::string& found);

// Answers shell commands with what they write to standard output and error, and the exit code where
// it is not 0. They run in a directory of the session's own, with the project's programs in PATH.
// This machine's /proc is put over the phone's: the programs need it for a phone of theirs, and a
// sanitizer to look for leaks at their end.
class shell_session {
  public:
    shell_session();
    ~shell_session();
    shell_session(const shell_session&) = delete;
    shell_session& operator=(const shell_session&) = delete;

    const std::filesystem::path& dir() const { return dir_; }
    std::string run(const std::string& commands) const;

  private:
    std::filesystem::path dir_;
};

// Numbers in ascending order as "1-5 7": what a reader wants to see of many.
std::string ranges_text(const std::vector<uint32_t>& numbers);

// A block of a dialogue as lines of words, without what stands behind a "#".
std::vector<std::vector<std::string>> words_of(const std::string& question);
