// This machine's processes, seen from a phone on its own /proc, are in no cpuset of a phone, and
// the daemon reports on processes in known ones only.
#pragma once

// Shows every process that runs now and is in no known cpuset as a foreground one, by mounting over
// its cpuset file. Processes that start later are left as they are. Needs the right to mount in a
// mount namespace of the process's own; does what it can otherwise.
void phone_overlay_host_cpusets();
