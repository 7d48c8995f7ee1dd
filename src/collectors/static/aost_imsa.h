// The IMS status and DRM level reporter: what the static collector's thread does after its record
// is dropped. There is one for the process. It appends to a record of its own, "aoststats.tmp",
// which an alarm hands over every so many seconds.
//
// Order of use: aost_imsa_init, aost_widevine_get_security_level, aost_imsa_get_registered,
// aost_imsa_start, aost_imsa_wait, aost_imsa_deinit. All functions: the row's own thread ("the
// static thread"), each ends early on a stop of the row. Failures are logged.
#pragma once

#include "framework/record/record.h"
#include "modem_client/modem_client.h"

// Connects to the IMS service, binds it to a subscription, and arms the alarm. req->row and
// req->handle are used until aost_imsa_deinit; the handle is left alone until the static record in
// it has been handed over. After a failure only the DRM level can be reported.
modem_result aost_imsa_init(write_req* req);

// Reports the DRM level once another component has left it in its file, for which it waits two
// minutes. From this call on the record is the reporter's. Returns whether it was written.
bool aost_widevine_get_security_level();

// Reports the state of the service. Returns whether the client is up and the state was written.
bool aost_imsa_get_registered();

// Asks for indications.
modem_result aost_imsa_start();

// Runs the alarm until the reporter ends.
void aost_imsa_wait();

// Ends the reporter, from any state. No indication comes after it.
void aost_imsa_deinit();
