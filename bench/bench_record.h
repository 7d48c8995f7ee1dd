// A collector's record and dropbox for the benchmarks.
#pragma once

#include <string>

#include "framework/record/record.h"

class bench_record {
  public:
    explicit bench_record(const std::string& name);
    ~bench_record();
    bench_record(const bench_record&) = delete;
    bench_record& operator=(const bench_record&) = delete;

    // Begins an empty record; ends the program when that fails.
    void begin();
    // Appends; ends the program when that fails. Returns whether the record rolled over first.
    bool append(const void* data, size_t len, uint32_t flags);
    // Deletes what was dropped.
    void empty_dropbox();

    collector_info row{};
    record_handle handle;

  private:
    std::string stats_dir_, up_dir_;
};
