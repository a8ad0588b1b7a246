// The four places that keep archives, read whole, with all that is recorded of them: what verify decides by, and the
// same for whoever mends.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "archive_evidence.h"
#include "generation.h"
#include "mirror.h"

namespace engine {

enum class StoragePlace { backup_on_flash, accept_on_flash, slot0, slot1 };

inline constexpr std::array<StoragePlace, 4> storage_places{StoragePlace::backup_on_flash,
                                                            StoragePlace::accept_on_flash, StoragePlace::slot0,
                                                            StoragePlace::slot1};

// "flash:backup", "flash:accept", "slot:kesta_backup0", "slot:kesta_backup1"
std::string address_of(StoragePlace place);
// Throws Failure.
StoragePlace place_at(const std::string &address);

// A slot's name is only for slots, a path only for flash.
bool is_on_flash(StoragePlace place);
std::string slot_of(StoragePlace place);
const char *path_of(StoragePlace place);
StoragePlace slot_place(const std::string &slot);

// The versions that are recorded for these very bytes: by who saved them, or in the catalogue of generations. None where
// neither knows them, or can't be read.
std::vector<int> recorded_versions(const std::string &sha256);

ArchiveEvidence evidence_at(
    StoragePlace place, const std::function<void()> &look = [] {});

// A number of the version areas, or of the flash file. Nothing: it was never set, or nobody has it.
struct VersionNumber {
    std::optional<int> number;
    bool unreadable = false;

    int or_zero() const { return number.value_or(0); }
};

struct VersionNumbers {
    VersionNumber numbering;
    VersionNumber backup;
    VersionNumber accept;
    VersionNumber current;  // of this controller, in the NV image
    VersionNumber flash;    // of this controller, on its flash
};

// What was read of all of it, at one moment.
struct Survey {
    int controller = -1;
    std::array<ArchiveEvidence, storage_places.size()> evidence;
    std::array<std::vector<int>, storage_places.size()> recorded;  // versions that are recorded for those very bytes
    MirrorState mirror;
    VersionNumbers versions;

    const ArchiveEvidence &at(StoragePlace place) const { return evidence[static_cast<std::size_t>(place)]; }
    const std::vector<int> &recorded_at(StoragePlace place) const { return recorded[static_cast<std::size_t>(place)]; }
    bool is_recorded(StoragePlace place, int version) const;
};

// Throws Failure: this controller's number can't be had, or a setting can't be used.
Survey survey_places();

// A kept archive of this version: whole, the newest that was recorded as such, else the newest that a place said so of.
// Nothing: none is kept.
std::optional<Generation> kept_archive_of(int version);

// "generation:SHA256", and the file that it stands for.
std::string address_of(const Generation &generation);
std::string path_of_generation(const std::string &sha256);

}  // namespace engine
