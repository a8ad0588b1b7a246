// The state of a controller for programs that watch it: as OpenMetrics text, and as the one line of a monitoring plugin.
#pragma once

#include <string>

#include "controller_state.h"

namespace engine {

// Ends with "# EOF". All metrics are gauges: collectors that read the older text format take them too.
std::string metrics_text(const ControllerState &state);

enum class Health { ok, warning, critical, unknown };  // exit codes 0 to 3

struct CheckRule {
    std::int64_t max_age = 0;  // seconds since the last save that are too many; 0: any number will do
    bool drift = false;        // counts as a warning
};

struct CheckAnswer {
    Health health = Health::ok;
    std::string line;  // ends in a newline
};

CheckAnswer check_answer(const ControllerState &state, const CheckRule &rule);

}  // namespace engine
