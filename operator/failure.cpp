#include "failure.h"

namespace engine {

Failure::Failure(Exit exit, std::string_view code, std::string_view message, std::string_view hint)
    : std::runtime_error(std::string(message)), exit_(exit), code_(code), hint_(hint)
{
}

Failure::Failure(const Failure &other) = default;
Failure &Failure::operator=(const Failure &other) = default;
Failure::~Failure() = default;

}  // namespace engine
