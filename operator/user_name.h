// Who runs this command.
#pragma once

#include <string>

namespace engine {

// Who logged in, also behind sudo; where nobody did, who called sudo; else whose rights these are.
std::string user_name();

}  // namespace engine
