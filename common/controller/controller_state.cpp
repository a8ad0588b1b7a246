#include "controller_state.h"

#include <limits.h>
#include <stdlib.h>

#include <algorithm>

#include "ownership.h"

namespace kesta {

constinit ControllerState controller_state;

void reset_controller_state() { controller_state = {}; }

int leading_int(const char *text)
{
    ErrnoKept keep;
    const long value = strtol(text, nullptr, 10);
    return static_cast<int>(std::clamp(value, static_cast<long>(INT_MIN), static_cast<long>(INT_MAX)));
}

}  // namespace kesta
