// The support library: allocation, configuration parsing, clocks and process helpers.
#pragma once

#include "utils_alloc.h"
#include "utils_config.h"
#include "utils_process.h"
#include "utils_timer.h"
