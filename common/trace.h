// One trace line with this file and line. The format must be a literal: the compiler checks it.
#pragma once

#include "mc_logapi.h"

#define TRACE(level, ...) MC_OutTrace(__FILE__, __LINE__, (level), __VA_ARGS__)
