// env_vpdctl: the identity that a controller board carries.
//   -r                        print WWN, serial number and GUID, a line each
//   [-w WWN] [-s NO] [-g GUID]  set them
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <string>
#include <vector>

#include "faults.h"
#include "name_file.h"
#include "settings.h"
#include "standard_descriptors.h"

namespace {

using namespace platform;

constexpr int exit_failed = 1;
constexpr int exit_usage = 2;
constexpr std::array<const char *, 3> names{"wwn", "serialno", "guid"};

int usage(FILE *out, int code)
{
    fputs(
        "usage: env_vpdctl -r | [-w WWN] [-s SERIAL_NUMBER] [-g GUID]\n"
        "  -r  print WWN, serial number and GUID, a line each\n"
        "  -w, -s, -g  set them\n",
        out);
    return code;
}

struct Request {
    bool reads = false;
    std::vector<std::pair<std::string, std::string>> changes;
};

// A value is never taken for an option that follows an empty one.
bool add_change(Request &request, const char *name, const char *value)
{
    if (value[0] == '-' || !is_value(value)) {
        return false;
    }
    request.changes.emplace_back(name, value);
    return true;
}

bool parse(int argc, char **argv, Request &request)
{
    int option;
    opterr = 0;
    while ((option = getopt(argc, argv, "rw:s:g:")) != -1) {
        bool good = true;
        switch (option) {
        case 'r':
            request.reads = true;
            break;
        case 'w':
            good = add_change(request, names[0], optarg);
            break;
        case 's':
            good = add_change(request, names[1], optarg);
            break;
        case 'g':
            good = add_change(request, names[2], optarg);
            break;
        default:
            good = false;
        }
        if (!good) {
            return false;
        }
    }
    return optind == argc && request.reads == request.changes.empty();
}

int perform(const Request &request)
{
    NameFile file(settings().vpd_file);
    const int result = request.reads ? file.read() : file.update(request.changes);
    if (result != 0) {
        fprintf(stderr, "env_vpdctl: %s: %s\n", settings().vpd_file, strerror(-result));
        return exit_failed;
    }
    if (request.reads) {
        for (const char *name : names) {
            printf("%s\n", file.value(name).value_or("").c_str());
        }
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
    Request request;
    if (!parse(argc, argv, request)) {
        return usage(stderr, exit_usage);
    }
    if (failure_of("vpdctl") != 0) {
        fputs("env_vpdctl: failed on demand\n", stderr);
        return exit_failed;
    }
    const int code = perform(request);
    return fflush(stdout) == 0 ? code : exit_failed;
}
