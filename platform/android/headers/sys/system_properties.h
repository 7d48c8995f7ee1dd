// The limits that the platform's property header takes from its C library, whose own headers are
// not packaged.
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
