#include "command_environment.h"

#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <array>

#include "ownership.h"

namespace {

constexpr const char *own_path = "/usr/sbin:/usr/bin:/sbin:/bin";
constexpr const char *shell_function = "BASH_FUNC_";
constexpr std::array<const char *, 13> steering_variables{
    "TAR_OPTIONS", "TAPE",     "BZIP", "BZIP2", "POSIXLY_CORRECT", "ENV",        "BASH_ENV",
    "SHELLOPTS",   "BASHOPTS", "PS4",  "IFS",   "CDPATH",          "GLOBIGNORE",
};

pthread_once_t settled = PTHREAD_ONCE_INIT;

// In place: nothing here needs memory, so nothing of it can fail.
void drop_shell_functions()
{
    const std::size_t length = strlen(shell_function);
    char **kept = environ;
    for (char **variable = environ; variable && *variable; ++variable) {
        if (strncmp(*variable, shell_function, length) != 0) {
            *kept++ = *variable;
        }
    }
    if (kept) {
        *kept = nullptr;
    }
}

void settle()
{
    if (getauxval(AT_SECURE) == 0) {
        return;
    }
    for (const char *name : steering_variables) {
        (void)unsetenv(name);  // fails for names that are none only
    }
    drop_shell_functions();
    (void)unsetenv("PATH");
    (void)setenv("PATH", own_path, 1);  // fails without memory: the shell has a path of its own
}

}  // namespace

void kesta::settle_command_environment()
{
    const CancelOff off;                   // half of it would stay undone for good
    (void)pthread_once(&settled, settle);  // fails for no once_t only
}
