#include "leftovers.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>

#include "archive_places.h"
#include "kesta/paths.h"
#include "whole_file.h"

namespace engine {
namespace {

constexpr std::array<const char *, 5> paths{
    unfinished_archive,
    KESTA_FLASH_DIRECTORY ".restore.new",
    KESTA_FLASH_DIRECTORY KESTA_BACKUP_ARCHIVE ".new",
    KESTA_FLASH_DIRECTORY KESTA_ACCEPT_ARCHIVE ".new",
    unfinished_flash_copy,
};

bool is_elsewhere(const ArchiveEvidence &evidence)
{
    return std::any_of(storage_places.begin(), storage_places.end(),
                       [&](StoragePlace place) { return evidence_at(place).same_bytes(evidence); });
}

// Whole, or beyond the limits of archives, where nothing tells.
bool may_be_missed(const ArchiveEvidence &evidence)
{
    return (evidence.good() || evidence.beyond_limits) && !is_elsewhere(evidence);
}

KeepRule adding(KeepRule rule)
{
    rule.only_adds = true;
    return rule;
}

}  // namespace

PlaceFinding Leftover::told() const { return told_of(path, evidence); }

void require_leftover(const std::string &path)
{
    if (std::find(paths.begin(), paths.end(), path) == paths.end()) {
        throw Failure(Exit::usage, "bad-path", path + " is nothing that commands leave behind.",
                      "'kestactl verify' shows what was left behind.");
    }
}

std::vector<std::string> leftover_paths()
{
    std::vector<std::string> found;
    for (const char *path : paths) {
        struct stat status {};
        if (lstat(path, &status) == 0) {
            found.emplace_back(path);
        } else if (errno != ENOENT && errno != ENOTDIR) {
            fail_file(path, "looked at");
        }
    }
    return found;
}

std::vector<Leftover> find_leftover_files()
{
    std::vector<Leftover> found;
    for (const char *path : paths) {
        Leftover leftover{path, evidence_of_file(path)};
        if (!leftover.evidence.absent()) {
            found.push_back(leftover);
        }
    }
    return found;
}

KeepReport keep_leftovers(const std::string &verb, const KeepRule &rule)
{
    std::vector<ReplacedPlace> whole;
    for (const Leftover &leftover : find_leftover_files()) {
        if (may_be_missed(leftover.evidence)) {
            whole.push_back({leftover.path, Replacing::in_place});
        }
    }
    return whole.empty() ? KeepReport() : keep_replaced(whole, verb, adding(rule));
}

void clear_leftover(const std::string &path, const std::string &verb)
{
    require_leftover(path);
    const ArchiveEvidence evidence = evidence_of_file(path);
    if (evidence.absent()) {
        return;
    }
    if (!Leftover{path, evidence}.can_be_cleared()) {
        throw Failure(Exit::platform, "leftover-unreadable", path + " can't be read: " + evidence.reason + ".",
                      "It stays, since it may be whole: check its disk.");
    }
    if (may_be_missed(evidence)) {
        (void)keep_replaced({{path, Replacing::in_place}}, verb, adding({}));
    }
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        fail_file(path, "removed");
    }
    flush_folder(std::filesystem::path(path).parent_path().string());
}

}  // namespace engine
