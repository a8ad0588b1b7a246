#include "command_environment.h"

#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "ownership.h"

namespace {

constexpr const char *own_path = "/usr/sbin:/usr/bin:/sbin:/bin";
// Shell functions, and settings of the library and its platforms: a command that such a program starts with its user's
// rights given up for good would trust them.
constexpr std::array<const char *, 2> steering_beginnings{"BASH_FUNC_", "KESTA_"};
// Those of what the library runs, and of the interpreters that a group's scripts are written for.
constexpr std::array<const char *, 33> steering_variables{
    "TAR_OPTIONS",
    "TAPE",
    "BZIP",
    "BZIP2",
    "POSIXLY_CORRECT",
    "ENV",
    "BASH_ENV",
    "SHELLOPTS",
    "BASHOPTS",
    "PS4",
    "IFS",
    "CDPATH",
    "GLOBIGNORE",
    "FPATH",
    "ZDOTDIR",
    "NULLCMD",
    "READNULLCMD",
    "PERLLIB",
    "PERL5LIB",
    "PERL5OPT",
    "PERL5DB",
    "PERLIO_DEBUG",
    "PYTHONHOME",
    "PYTHONPATH",
    "RUBYLIB",
    "PYTHONUSERBASE",
    "RUBYOPT",
    "PYTHONINSPECT",
    "PYTHONSTARTUP",
    "PYTHONWARNINGS",
    "PYTHONBREAKPOINT",
    "AWKPATH",
    "AWKLIBPATH",
};

pthread_once_t settled = PTHREAD_ONCE_INIT;

// In place: nothing here needs memory, so nothing of it can fail.
void drop_by_beginning()
{
    const auto steers = [](const char *variable) {
        return std::any_of(steering_beginnings.begin(), steering_beginnings.end(), [variable](const char *beginning) {
            return strncmp(variable, beginning, strlen(beginning)) == 0;
        });
    };
    char **kept = environ;
    for (char **variable = environ; variable && *variable; ++variable) {
        if (!steers(*variable)) {
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
    drop_by_beginning();
    (void)unsetenv("PATH");
    (void)setenv("PATH", own_path, 1);  // fails without memory: the shell has a path of its own
}

}  // namespace

void kesta::settle_command_environment()
{
    const CancelOff off;                   // half of it would stay undone for good
    (void)pthread_once(&settled, settle);  // fails for no once_t only
}
