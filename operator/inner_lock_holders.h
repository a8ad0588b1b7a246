// Who holds the inner lock, as its slots in the NV image tell it.
#pragma once

#include <string>

namespace engine {

// Controllers whose slot is set, as "CNT1 (token 42)"; empty if nobody holds it or it can't be told.
std::string inner_lock_text();

}  // namespace engine
