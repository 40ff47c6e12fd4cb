// Parameter-string and configuration-file parsing.
#pragma once

#include "export.h"
