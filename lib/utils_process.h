// Process and thread helpers.
#pragma once

#include "export.h"
