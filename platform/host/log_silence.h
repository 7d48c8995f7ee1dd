// For programs that use the daemon's functions outside a phone: to measure or ask, without the log.
#pragma once

// From here on __android_log_print of this process does nothing. Before a second thread runs.
void host_log_silence();
