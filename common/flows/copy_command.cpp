#include "copy_command.h"

#include <unistd.h>

#include "kesta/process.h"
#include "opened_file.h"

namespace kesta {
namespace {

constexpr int copy_failed = 1;  // as cp says it

}  // namespace

int run_copy(const char *command, const char *from, const char *to)
{
    if (may_wait(from) || (may_wait(to) && unlink(to) != 0)) {
        return copy_failed;
    }
    return kestal_exec_cmd_by_system(command);
}

}  // namespace kesta
