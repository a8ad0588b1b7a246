#include <iostream>

#include "options.h"
#include "printable.h"

namespace options {

int tell(const Ended &ended)
{
    constexpr int failed = 1;
    constexpr int usage = 2;
    std::ostream &stream = ended.wrong ? std::cerr : std::cout;
    stream << engine::printable(ended.text) << std::flush;
    return ended.wrong ? usage : stream ? 0 : failed;
}

}  // namespace options
