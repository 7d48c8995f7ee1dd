#define LOG_TAG "vexastatsd"

#include "campaign/campaign_rules.h"
