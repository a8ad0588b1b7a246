#include "utc.h"

#include <time.h>

namespace engine {

std::string utc(std::int64_t seconds)
{
    const time_t time = seconds;
    struct tm parts {};
    char text[32];
    if (!gmtime_r(&time, &parts) || strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts) == 0) {
        return std::to_string(seconds);
    }
    return text;
}

}  // namespace engine
