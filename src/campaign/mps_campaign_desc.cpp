#define LOG_TAG "vexastatsd"

#include "campaign/mps_campaign_desc.h"
