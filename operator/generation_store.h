// Keeping generations: what is added, what is dropped for it, and whether what was kept is still whole.
//
// An archive is kept before it is overwritten, under the name of its contents, so that the same one is kept once. The
// order on the disk is archive, entry, folder flushed; an archive without an entry gets one again, from its own
// contents. What is dropped loses its entry first.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "archive_contents.h"
#include "archive_limits.h"
#include "generation.h"
#include "generation_check.h"
#include "generation_entry.h"
#include "generation_folder.h"
#include "keep_report.h"

namespace engine {

// An archive that is about to be replaced.
struct GenerationSource {
    std::string place;
    ArchiveContents contents;
    std::string sha256;
    Descriptor file;  // open: it is replaced by a new file of its name, never written, and may be kept as it is
    int version = 0;  // what the place says; 0: nothing
};

using AskVersions = std::function<VersionsInForce()>;  // asked only where something has to go

// False for what is known to be damaged.
using IsWhole = std::function<bool(const ArchiveContents &contents)>;

class GenerationStore {
public:
    explicit GenerationStore(std::string parent, IsWhole is_whole);

    // Newest first. Throws Failure.
    std::vector<Generation> all() const;

    // What note_saved has noted. Throws Failure.
    std::vector<SavedArchive> saved() const;

    // Every file read whole and held against its checksum. Throws Failure: the folder can't be read.
    GenerationsCheck check() const;

    // Keeps the whole ones of the sources, then drops what is beyond the limits. Throws Failure: one of them could
    // not be kept, and must not be overwritten. The one with the checksum 'spared' is not dropped.
    KeepReport keep(const std::vector<GenerationSource> &sources, const GenerationChange &change,
                    const GenerationLimits &limits, const AskVersions &in_force, const std::string &spared = {}) const;

    // Drops the oldest one that is not in force, and none of those that the report says were kept, nor the one with the
    // checksum 'spared'. False: there is none. Throws Failure.
    bool drop_oldest(const AskVersions &in_force, KeepReport &report, const std::string &spared = {}) const;

    // Drops this one, whatever it is: its entry first. Throws Failure.
    void forget(const std::string &sha256) const;

    // Notes what was just made and tested, so that it is known when it is replaced one day. Throws Failure.
    void note_saved(const SavedArchive &archive) const;

private:
    std::string parent_;
    IsWhole is_whole_;
};

}  // namespace engine
