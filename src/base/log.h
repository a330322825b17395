#pragma once

// Tag of every line that the service logs; the macros of the platform's header take it from here.
#define LOG_TAG "velmar"

#include <log/log.h>
