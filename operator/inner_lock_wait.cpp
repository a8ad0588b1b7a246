#include "inner_lock_wait.h"

#include <sys/times.h>
#include <time.h>
#include <unistd.h>

#include <iostream>
#include <mutex>
#include <string>
#include <string_view>

#include "inner_lock_holders.h"
#include "printable.h"
#include "utc.h"

namespace engine {
namespace {

constexpr int attempt_level = 4;
constexpr int longest_wait = 130;  // seconds: 1,000 attempts, 0.13 s apart on CNT3

// The clock that the library's waits are measured with, in seconds.
double now()
{
    static const double ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    struct tms unused {};
    return static_cast<double>(times(&unused)) / ticks;
}

struct Wait {
    double began = 0;
    double last = 0;
    bool told = false;
};

std::mutex mutex;
Wait wait;
thread_local bool asking = false;  // reading the slots traces, too

void tell()
{
    asking = true;
    const std::string holders = inner_lock_text();
    asking = false;
    std::cerr << "waiting for the inner lock of the NV image until " << utc(time(nullptr) + longest_wait)
              << " at most: " << (holders.empty() ? "a process of this controller" : printable(holders))
              << " holds it; a dead holder's is cleared after 30 s" << std::endl;
}

}  // namespace

void watch_inner_lock(const char *file, int level)
{
    if (asking || level != attempt_level || !file ||
        std::string_view(file).find("kestal_cntl_innerlock") == std::string_view::npos || isatty(STDERR_FILENO) == 0) {
        return;
    }
    {
        const std::lock_guard guard(mutex);
        const double seconds = now();
        if (seconds - wait.last > 1) {
            wait = {seconds, seconds, false};
        }
        wait.last = seconds;
        if (wait.told || seconds - wait.began <= 1) {
            return;
        }
        wait.told = true;
    }
    tell();
}

}  // namespace engine
