// eeprom: reads and sets values of a controller's boot environment.
//   eeprom [-f FILE] [NAME | NAME=VALUE]...   without names: all of them
#include <stdio.h>
#include <string.h>

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

int usage(FILE *out, int code)
{
    fputs(
        "usage: eeprom [-f FILE] [NAME | NAME=VALUE]...\n"
        "  NAME        print NAME=VALUE\n"
        "  NAME=VALUE  set it\n"
        "  -f FILE     another file than the controller's own boot environment\n"
        "Without names all values are printed.\n",
        out);
    return code;
}

int complain(const std::string &path, int error)
{
    fprintf(stderr, "eeprom: %s: %s\n", path.c_str(), strerror(-error));
    return exit_failed;
}

struct Request {
    std::string path;
    std::vector<std::string> names;
    std::vector<std::pair<std::string, std::string>> changes;
};

bool parse(int argc, char **argv, Request &request)
{
    int at = 1;
    if (at < argc && strcmp(argv[at], "-f") == 0) {
        if (argc < 3 || argv[2][0] == '\0') {
            return false;
        }
        request.path = argv[2];
        at = 3;
    }
    for (; at < argc; ++at) {
        const std::string word = argv[at];
        const std::size_t equals = word.find('=');
        const std::string name = word.substr(0, equals);
        if (!is_name(name) || !is_value(word)) {
            return false;
        }
        if (equals == std::string::npos) {
            request.names.push_back(name);
        } else {
            request.changes.emplace_back(name, word.substr(equals + 1));
        }
    }
    return true;
}

int print_all(const NameFile &file)
{
    for (const auto &[name, value] : file.all()) {
        printf("%s=%s\n", name.c_str(), value.c_str());
    }
    return 0;
}

int print_names(const NameFile &file, const std::vector<std::string> &names)
{
    int code = 0;
    for (const std::string &name : names) {
        if (const auto value = file.value(name)) {
            printf("%s=%s\n", name.c_str(), value->c_str());
        } else {
            fprintf(stderr, "eeprom: %s: data not available.\n", name.c_str());
            code = exit_failed;
        }
    }
    return code;
}

int perform(const Request &request)
{
    NameFile file(request.path);
    const int result = request.changes.empty() ? file.read() : file.update(request.changes);
    if (result != 0) {
        return complain(request.path, result);
    }
    if (request.names.empty()) {
        return request.changes.empty() ? print_all(file) : 0;
    }
    return print_names(file, request.names);
}

}  // namespace

int main(int argc, char **argv)
{
    kesta::open_standard_descriptors();
    if (argc == 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0)) {
        return usage(stdout, 0);
    }
    Request request{settings().eeprom_file, {}, {}};
    if (!parse(argc, argv, request)) {
        return usage(stderr, exit_usage);
    }
    if (failure_of("eeprom") != 0) {
        fputs("eeprom: failed on demand\n", stderr);
        return exit_failed;
    }
    const int code = perform(request);
    return fflush(stdout) == 0 ? code : exit_failed;
}
