#define LOG_TAG "vexastatsd"

#include "campaign/campaign_desc.h"
