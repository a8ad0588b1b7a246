// What kestactl prints: a result or a failure, for a terminal or as one JSON text.
#pragma once

#include "command.h"

namespace kestactl {

enum class Form { text, json };

// Both end in a newline, or are empty.
std::string shown_result(const Result &result, Form form);
// What a line begins with tells its colour: differences, and what is wrong.
std::string coloured(const std::string &text);

std::string shown_failure(const Failure &failure, Form form);

}  // namespace kestactl
