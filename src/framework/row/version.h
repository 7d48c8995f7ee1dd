#pragma once

// The daemon's version, as it stands in its log and configuration files.
#define VEXASTATSD_VERSION "1.2"
