#include "group_paths.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <string_view>

#include "failure.h"
#include "whole_file.h"

namespace engine {
namespace {

namespace fs = std::filesystem;

constexpr const char *staged_end = ".kesta-new";
constexpr std::size_t kept_of_long_name = 200;

std::string name_of(const std::string &path) { return path.substr(path.rfind('/') + 1); }

bool is_staged_name(std::string_view name) { return name.starts_with('.') && name.ends_with(staged_end); }

// Whether the test holds for a name of the path, the names of its folders included.
template <typename Test>
bool has_name(std::string_view path, const Test &test)
{
    for (std::size_t end = path.find('/'); end != path.npos; end = path.find('/')) {
        if (test(path.substr(0, end))) {
            return true;
        }
        path.remove_prefix(end + 1);
    }
    return test(path);
}

// Its folders count as well: an archive need not hold them.
bool has_staged_name(std::string_view path) { return has_name(path, is_staged_name); }

bool has_long_name(std::string_view path)
{
    return path.size() >= PATH_MAX || has_name(path, [](std::string_view name) { return name.size() > NAME_MAX; });
}

bool climbs(std::string_view path)
{
    return has_name(path, [](std::string_view name) { return name == ".."; });
}

// Whether each ".." stands before all names: what a link in the middle makes of it can't be seen
// otherwise.
bool climbs_first(const fs::path &target)
{
    bool named = false;
    for (const fs::path &part : target) {
        if (part == ".." && named) {
            return false;
        }
        named = named || (part != ".." && part != ".");
    }
    return true;
}

// Programs that run with their owner's or group's rights. A second name may become a file with the mode that it has itself.
bool gives_rights(const Member &member)
{
    const bool is_file = member.kind == MemberKind::file || member.kind == MemberKind::hard_link;
    return is_file && ((member.mode & S_ISUID) != 0 || ((member.mode & S_ISGID) != 0 && (member.mode & S_IXGRP) != 0));
}

// The same for the same text, everywhere.
std::string fingerprint(const std::string &text)
{
    std::uint64_t hash = 0xcbf29ce484222325U;
    for (const char c : text) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3U;
    }
    char digits[17];
    snprintf(digits, sizeof(digits), "%016llx", static_cast<unsigned long long>(hash));
    return digits;
}

// Where a link leads by its text, relative to the root.
std::string destination_of(const Member &link)
{
    const fs::path from = fs::path("/" + link.path).parent_path();
    std::string destination = (from / link.target).lexically_normal().relative_path().string();
    if (destination.ends_with('/')) {
        destination.pop_back();
    }
    return destination;
}

}  // namespace

bool is_within(const std::string &path, const std::string &folder)
{
    return path == folder || (path.starts_with(folder) && path[folder.size()] == '/');
}

std::string without_needless_slashes(const std::string &path)
{
    std::string result;
    for (const char c : path) {
        if (c != '/' || !result.ends_with('/')) {
            result += c;
        }
    }
    if (result.size() > 1 && result.ends_with('/')) {
        result.pop_back();
    }
    return result;
}

std::string fault_of_path(const std::string &text)
{
    const fs::path path = text;
    // As text: what compares the parts of paths takes two slashes for one, what archives are held against does not.
    const bool plain = path.is_absolute() && path.lexically_normal().native() == text && path.has_relative_path() &&
                       path.has_filename();
    if (!plain) {
        return "can't be archived: it is not absolute, or has '..', '.' or a slash too many";
    }
    if (has_staged_name(text)) {
        return "can't be archived: it has a name that 'kestactl restore' gives to files for a moment";
    }
    return has_long_name(text) ? "can't be archived: it has a longer name than a file can have" : "";
}

void check_file_path(const std::string &text)
{
    if (const std::string fault = fault_of_path(text); !fault.empty()) {
        throw Failure(Exit::no, "bad-path", "The definition names '" + text + "', which " + fault + ".",
                      "Mend the definition: 'kestactl group check' shows the line.");
    }
}

std::string staged_name(const std::string &name)
{
    const bool fits = name.size() + 1 + strlen(staged_end) <= NAME_MAX;
    return "." + (fits ? name : name.substr(0, kept_of_long_name) + "." + fingerprint(name)) + staged_end;
}

GroupPaths::GroupPaths(const KESTA_BACKUP_FILE &definition, const std::string &only)
{
    for (const KESTA_BACKUP_FILE_PATH &file : definition.setfile) {
        if (file.pathname[0] == '\0') {
            break;
        }
        check_file_path(file.pathname);
        all_.push_back(file.pathname + 1);
    }
    if (only.empty()) {
        wanted_ = all_;
        return;
    }
    const std::string path = fault_of_path(only).empty() ? only.substr(1) : "";
    if (!contains(path)) {
        throw Failure(Exit::no, "not-of-the-group", "The group has no path " + only + ".",
                      "--only takes one of its paths, or one below them: see 'kestactl group show'.");
    }
    wanted_.push_back(path);
}

bool GroupPaths::any_of(const std::vector<std::string> &paths, const std::string &path)
{
    return std::any_of(paths.begin(), paths.end(),
                       [&path](const std::string &known) { return is_within(path, known); });
}

bool GroupPaths::names(const std::string &path) const
{
    return std::find(all_.begin(), all_.end(), path) != all_.end();
}

bool GroupPaths::leads_to_wanted(const std::string &path) const
{
    return std::any_of(wanted_.begin(), wanted_.end(),
                       [&path](const std::string &wanted) { return is_within(wanted, path); });
}

std::string GroupPaths::fault_of_link(const Member &member) const
{
    if (member.kind == MemberKind::link && member.target.empty()) {
        return "is a link that leads nowhere";
    }
    if (member.kind == MemberKind::link &&
        (!climbs_first(member.target) || member.target.size() >= PATH_MAX || !contains(destination_of(member)))) {
        return "leads out of the group, to '" + member.target + "'";
    }
    return "";
}

std::string GroupPaths::fault_of(const Member &member) const
{
    if (member.path.empty() || member.path.starts_with('/') || climbs(member.path)) {
        return "is not below the root";
    }
    if (has_long_name(member.path)) {
        return "has a longer name than a file can have";
    }
    if (has_staged_name(member.path)) {
        return "has a name that 'kestactl restore' gives to files for a moment";
    }
    if (member.kind == MemberKind::special) {
        return "is neither a file nor a folder nor a link";
    }
    if (gives_rights(member)) {
        return "runs with its owner's or group's rights (setuid, setgid), which no definition can give";
    }
    return fault_of_link(member);
}

GroupPlaces::GroupPlaces(const GroupPaths &paths)
{
    for (const std::string &path : paths.all()) {
        places_.emplace(path, place_of(path));
    }
}

std::string GroupPlaces::place_of(const std::string &path) const
{
    const std::string *nearest = nullptr;
    for (const auto &[known, place] : places_) {
        if (is_within(path, known) && (!nearest || known.size() > nearest->size())) {
            nearest = &known;
        }
    }
    if (nearest) {
        return places_.at(*nearest) + path.substr(nearest->size());
    }
    return (fs::path(root_.settled(fs::path(path).parent_path().string())) / name_of(path)).string();
}

Entry GroupPlaces::entry(const std::string &path) const
{
    const std::string place = place_of(path);
    Entry entry = root_.entry(place);
    if (!entry && errno != ENOENT && errno != ELOOP && errno != ENOTDIR) {
        fail_file("/" + path, "reached");
    }
    if (!entry && errno != ENOENT) {
        const std::string obstacle = root_.obstacle(place);
        throw Failure(Exit::no, "wrong-kind",
                      (obstacle.empty() ? "The way to /" + path : obstacle) + " is no folder of root's, and /" + path +
                          " is below it.",
                      "Links are followed to a group's paths only where root alone can have made them, and "
                      "not below them. Move it away, or name the real path in the definition.");
    }
    return entry;
}

}  // namespace engine
