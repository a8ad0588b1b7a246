#include "archive_limits.h"

#include <charconv>
#include <sstream>
#include <string>

#include "failure.h"
#include "whole_file.h"

namespace engine {
namespace {

[[noreturn]] void refuse_line(int number, const std::string &line)
{
    throw Failure(Exit::platform, "bad-setting",
                  std::string(archive_limits_file) + ":" + std::to_string(number) + ": '" + line +
                      "' is no limit of archives.",
                  "Lines are 'NAME = NUMBER', with a number from 1; the names are archive_bytes, "
                  "archive_members, archive_ratio, generations, generation_bytes and packing_threads.");
}

struct AllLimits {
    ArchiveLimits archive;
    GenerationLimits generations;
    std::uint64_t packing_threads = 0;
};

std::uint64_t *limit_of(AllLimits &limits, const std::string &name)
{
    return name == "archive_bytes"      ? &limits.archive.bytes
           : name == "archive_members"  ? &limits.archive.members
           : name == "archive_ratio"    ? &limits.archive.ratio
           : name == "generations"      ? &limits.generations.count
           : name == "generation_bytes" ? &limits.generations.bytes
           : name == "packing_threads"  ? &limits.packing_threads
                                        : nullptr;
}

bool set_limit(AllLimits &limits, std::string line)
{
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) {
        return false;
    }
    line[equals] = ' ';
    std::istringstream words(line);
    std::string name;
    std::string value;
    std::string more;
    words >> name >> value;
    std::uint64_t *const limit = limit_of(limits, name);
    if (!limit || words >> more) {
        return false;
    }
    const char *const end = value.data() + value.size();
    const auto read = std::from_chars(value.data(), end, *limit);
    return read.ec == std::errc() && read.ptr == end && *limit > 0;
}

AllLimits read_limits()
{
    AllLimits limits;
    std::istringstream file(read_settings(archive_limits_file));
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        const std::size_t begin = line.find_first_not_of(" \t");
        if (begin != std::string::npos && line[begin] != '#' && !set_limit(limits, line)) {
            refuse_line(number, line);
        }
    }
    return limits;
}

}  // namespace

ArchiveLimits archive_limits() { return read_limits().archive; }

GenerationLimits generation_limits() { return read_limits().generations; }

std::uint64_t packing_threads() { return read_limits().packing_threads; }

}  // namespace engine
