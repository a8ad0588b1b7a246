// cpinfo: what this controller is. Prints one line.
//   -i  own controller number   -N  number of controllers   -b  boot mode
#include <stdio.h>
#include <string.h>

#include "faults.h"
#include "settings.h"
#include "standard_descriptors.h"

namespace {

constexpr int exit_failed = 1;
constexpr int exit_usage = 2;

int usage(FILE *out, int code)
{
    fputs(
        "usage: cpinfo -i | -N | -b\n"
        "  -i  print the own controller number\n"
        "  -N  print the number of controllers\n"
        "  -b  print the boot mode: normal, suspend or initconf\n",
        out);
    return code;
}

int answer(const char *option)
{
    const platform::Settings &known = platform::settings();
    if (strcmp(option, "-i") == 0) {
        return printf("%d\n", known.controller_number);
    }
    if (strcmp(option, "-N") == 0) {
        return printf("%d\n", known.controller_count);
    }
    if (strcmp(option, "-b") == 0) {
        return printf("%s\n", known.boot_mode);
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv)
{
    kesta::open_standard_descriptors();
    if (argc == 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0)) {
        return usage(stdout, 0);
    }
    if (argc != 2) {
        return usage(stderr, exit_usage);
    }
    if (platform::settings_problem()[0] != '\0') {
        fprintf(stderr, "cpinfo: %s\n", platform::settings_problem());
        return exit_failed;
    }
    if (platform::failure_of("cpinfo") != 0) {
        fputs("cpinfo: failed on demand\n", stderr);
        return exit_failed;
    }
    const int printed = answer(argv[1]);
    if (printed == 0) {
        return usage(stderr, exit_usage);
    }
    return printed > 0 && fflush(stdout) == 0 ? 0 : exit_failed;
}
