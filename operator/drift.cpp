#include "drift.h"

#include <unistd.h>

#include <algorithm>

#include "archive_evidence.h"
#include "archive_places.h"
#include "failure.h"
#include "generations.h"
#include "group_definition.h"

namespace engine {
namespace {

// The group whose files this archive holds, as it was noted when they were saved.
std::string group_of(const std::string &sha256)
{
    const std::vector<SavedArchive> saved = saved_archives();
    const auto found =
        std::find_if(saved.rbegin(), saved.rend(), [&sha256](const SavedArchive &one) { return one.sha256 == sha256; });
    return found == saved.rend() ? "" : found->group;
}

void count(Drift &drift, const std::vector<FileDifference> &found)
{
    for (const FileDifference &one : found) {
        std::size_t &counted = one.what.front() == "added"     ? drift.added
                               : one.what.front() == "removed" ? drift.removed
                                                               : drift.changed;
        ++counted;
        if (drift.paths.size() < most_drift_paths) {
            drift.paths.push_back(one.path);
        }
    }
    drift.state = found.empty() ? DriftState::none : DriftState::drifted;
    drift.text = found.empty()
                     ? "the files of " + drift.group + " are as they were saved"
                     : "files of " + drift.group + " since they were saved: " + std::to_string(drift.changed) +
                           " changed, " + std::to_string(drift.added) + " added, " + std::to_string(drift.removed) +
                           " removed; see 'kestactl diff " + drift.group + "'";
}

Drift unknown(const std::string &why)
{
    Drift drift;
    drift.text = why;
    return drift;
}

Drift drift_of_backup()
{
    if (access(flash_backup, F_OK) != 0) {
        return unknown("nothing is saved on flash to hold the files against");
    }
    const ArchiveContents contents = contents_of_path(flash_backup);
    Drift drift = unknown("which group's files the backup on flash holds was not noted");
    const std::string sum = checksum_of(contents);
    drift.group = group_of(sum);
    if (drift.group.empty()) {
        return drift;
    }
    if (access(definition_of(drift.group).c_str(), F_OK) != 0) {
        drift.text = "the group " + drift.group + " is not defined any more";
        return drift;
    }
    const Definition definition = read_definition(drift.group);
    const ComparedSide saved{"backup",
                             Archive{contents_known_as(contents, sum, flash_backup), flash_backup, archive_limits()}};
    count(drift, differences(saved, {"live"}, *definition));
    note_whole(sum, contents.size);  // who verifies the archives afterwards unpacks it no more
    return drift;
}

}  // namespace

const char *name_of(DriftState state)
{
    switch (state) {
    case DriftState::none:
        return "none";
    case DriftState::drifted:
        return "drifted";
    case DriftState::unknown:
        return "unknown";
    default:
        return "unreadable";
    }
}

Drift find_drift()
{
    try {
        return drift_of_backup();
    } catch (const Failure &failure) {
        Drift drift;
        drift.state = DriftState::unreadable;
        drift.text = failure.what() + (" " + failure.hint());
        return drift;
    }
}

}  // namespace engine
