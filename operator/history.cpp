#include "history.h"

#include <stdio.h>
#include <time.h>

#include <algorithm>
#include <charconv>

#include "change_log.h"
#include "failure.h"
#include "storage_places.h"

namespace engine {
namespace {

constexpr std::size_t least_digits = 8;
constexpr std::size_t most_digits_of_number = 7;

bool is_number(const std::string &text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

std::optional<std::int64_t> number_in(const std::string &text)
{
    std::int64_t number = 0;
    const char *const end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, number);
    return is_number(text) && read.ec == std::errc() && read.ptr == end ? std::optional(number) : std::nullopt;
}

std::optional<std::int64_t> seconds_in(char unit)
{
    switch (unit) {
    case 'm':
        return 60;
    case 'h':
        return 3600;
    case 'd':
        return 86400;
    default:
        return std::nullopt;
    }
}

std::optional<std::int64_t> parse_calendar(const std::string &text)
{
    for (const char *form : {"%Y-%m-%dT%H:%M:%SZ", "%Y-%m-%d"}) {
        struct tm parts {};
        const char *const end = strptime(text.c_str(), form, &parts);
        const int day = parts.tm_mday;
        if (end && *end == '\0') {
            const std::int64_t time = timegm(&parts);  // it takes the 30th of February for the 2nd of March
            return parts.tm_mday == day ? std::optional(time) : std::nullopt;
        }
    }
    return std::nullopt;
}

bool is_wanted(const Generation &generation, const HistoryFilter &filter)
{
    const std::int64_t date = date_of(generation);
    return (filter.group.empty() || generation.group == filter.group) && (!filter.since || date >= *filter.since) &&
           (!filter.until || date <= *filter.until) &&
           (!filter.first_version || generation.version >= *filter.first_version) &&
           (!filter.last_version || generation.version <= *filter.last_version);
}

bool is_called(const Generation &generation, const std::string &name)
{
    if (is_number(name) && name.size() <= most_digits_of_number) {
        return name == std::to_string(generation.number);
    }
    return name.size() >= least_digits && generation.sha256.starts_with(name);
}

}  // namespace

const GenerationChange &origin_of(const Generation &generation)
{
    return generation.saved ? *generation.saved : generation.kept;
}

std::int64_t date_of(const Generation &generation) { return origin_of(generation).time; }

std::string reason_of(const GenerationChange &change) { return change.comment.empty() ? change.verb : change.comment; }

std::string result_of(const GenerationChange &change) { return result_of_change(change.change); }

std::vector<Generation> history(const HistoryFilter &filter)
{
    std::vector<Generation> all = generations();
    std::erase_if(all, [&filter](const Generation &one) { return !is_wanted(one, filter); });
    return all;
}

Generation find_generation(const std::string &name)
{
    std::vector<Generation> found = generations();
    std::erase_if(found, [&name](const Generation &one) { return !is_called(one, name); });
    if (found.size() != 1) {
        throw Failure(Exit::no, found.empty() ? "no-generation" : "many-generations",
                      found.empty() ? "There is no generation " + name + "."
                                    : "More than one generation is called " + name + ".",
                      "See 'kestactl history': give a number of the list, or the first " +
                          std::to_string(least_digits) + " digits of the checksum or more.");
    }
    return found.front();
}

std::int64_t parse_time(const std::string &text, std::int64_t now)
{
    constexpr std::int64_t longest_ago = 36'500;
    if (const auto time = parse_calendar(text)) {
        return *time;
    }
    if (text.size() > 1) {
        const auto count = number_in(text.substr(0, text.size() - 1));
        const auto unit = seconds_in(text.back());
        if (count && unit && *count <= longest_ago * (86400 / *unit)) {
            return now - *count * *unit;
        }
    }
    throw Failure(Exit::usage, "bad-time", "'" + text + "' is no point in time.",
                  "Give 2026-11-21 or 2026-11-21T20:49:00Z, both in UTC, or how long ago: 90m, 12h, 7d.");
}

void parse_versions(const std::string &text, HistoryFilter &filter)
{
    constexpr std::int64_t largest = 0x7fffffff;
    const std::size_t dash = text.find('-');
    const auto first = number_in(text.substr(0, dash));
    const auto last = dash == std::string::npos ? first : number_in(text.substr(dash + 1));
    if (!first || !last || *first > largest || *last > largest || *first > *last) {
        throw Failure(Exit::usage, "bad-version", "'" + text + "' is no version.",
                      "Give a number, or the first and the last one: 3-9.");
    }
    filter.first_version = static_cast<int>(*first);
    filter.last_version = static_cast<int>(*last);
}

std::string kept_because(const Generation &generation)
{
    const std::string why = why_generation_stays(generation.sha256);
    const bool is_elsewhere =
        !why.empty() && std::any_of(storage_places.begin(), storage_places.end(), [&](StoragePlace place) {
            const ArchiveEvidence evidence = evidence_at(place);
            return evidence.good() && evidence.sha256 == generation.sha256;
        });
    return is_elsewhere ? "" : why;
}

void drop_generation(const Generation &generation)
{
    const std::string why = kept_because(generation);
    if (!why.empty()) {
        throw Failure(Exit::no, "last-copy", name_of(generation) + " is not dropped: " + why + ".",
                      "Nothing was changed. Drop an older one, or save or accept another environment first.");
    }
    forget_generation(generation.sha256);
}

}  // namespace engine
