// The numbers of a row's uploads: "<record directory>/<stem>.seq" holds the next one.
//
// The file is replaced, so that a kill cannot reset it. Where it cannot be replaced it is written
// in place, and where that fails too the numbers go on from what stands in it: a number may then
// come twice, but a record is not held back for want of one. Thread: the holder of the record-file
// lock, or the row's own from vexastats_record_init.
#pragma once

#include <cstdint>

#include "framework/record/record_path.h"

// Carried by the upload of a record whose name has no ".", which has no sequence file.
inline constexpr uint32_t NO_SEQUENCE = 0xdeadbeef;

// The numbers that a row's headers take. The file follows at commit() or, for a hand-over that
// fails before, at the end: one sync for both headers of a hand-over.
class sequence_turn {
  public:
    explicit sequence_turn(const collector_info& row);  // the file goes by row.rec_fname
    ~sequence_turn() { commit(); }
    sequence_turn(const sequence_turn&) = delete;
    sequence_turn& operator=(const sequence_turn&) = delete;

    uint32_t take();
    void commit();

  private:
    record_path path_;
    bool counted_;
    uint32_t next_;
    bool committed_ = true;
};

// A finished file that is delivered late may carry a number that the sequence file has lost: has
// the file go on behind `number`. A failure is logged.
void sequence_keep_ahead_of(const record_path& finished, uint32_t number);
