// Numbers of controllers.
#pragma once

#include "kesta/base.h"

namespace kesta {

inline bool is_controller(int number) { return static_cast<unsigned>(number) < KESTA_CONTROLLERS; }

}  // namespace kesta
