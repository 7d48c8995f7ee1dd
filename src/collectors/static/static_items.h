// The items of the static record.
//
// Each function appends its item to the record of `req`, with one vexastats_write_file or several.
// req->data is a text buffer of req->len bytes that belongs to the caller and may be written to; a
// longer text is cut off. The functions return 0; -EINVAL for a null argument, a source that cannot
// be read or a failed write; -ENOMEM. Failures are logged. Thread: the row's own.
#pragma once

#include <cstddef>

#include "framework/record/record.h"

inline constexpr size_t STATIC_TEXT_SIZE = 512;

// The kernel's configuration, without comments and empty lines.
int prepare_kernel_config(write_req* req);

// Why the device was last switched on and off, from the kernel log. Ends early on a stop.
int prepare_pwr_onoff_reason(write_req* req);

int prepare_sec_patch_level(write_req* req);

// The firmware's versions.
int prepare_ver_info(write_req* req);

// Writes nothing: starts the client of the IMS service. Returns 0 also when that fails, so that it
// is not tried again: deliberate.
int prepare_aost_imsa_register(write_req* req);
