#include "storage_places.h"

#include <fcntl.h>
#include <kesta/kesta.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "appliance_state.h"
#include "archive_places.h"
#include "beneath.h"
#include "causes.h"
#include "failure.h"
#include "generation_folder.h"
#include "generations.h"
#include "kesta/paths.h"
#include "version_numbers.h"

namespace engine {
namespace {

constexpr const char *flash_backup_address = "flash:backup";
constexpr const char *flash_accept_address = "flash:accept";

VersionNumber number_of(int area, int controller)
{
    const std::optional<int> version = number_in_area(area, controller);
    return {version.value_or(0) > 0 ? version : std::nullopt, !version};
}

bool can_be_read(const char *path)
{
    const Descriptor file(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    char byte;
    return file && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) && read(file.get(), &byte, 1) >= 0;
}

VersionNumber flash_number()
{
    int version = 0;
    const bool was_read = kestal_read_flash_version_file(&version, KESTA_FLASH_VERSION) == KESTA_OK;
    if (!was_read) {
        return {std::nullopt, !can_be_read(KESTA_VERSION_FILE)};  // what is no number can be set anew
    }
    return {version > 0 ? std::optional(version) : std::nullopt, false};
}

VersionNumbers read_numbers(int own)
{
    return {number_of(KESTA_VER_AREA_NUMBERING, own), number_of(KESTA_VER_AREA_BACKUP, own),
            number_of(KESTA_VER_AREA_ACCEPT, own), number_of(KESTA_VER_AREA_CURRENT, own), flash_number()};
}

// What can't be read of the catalogue is told by the check of it.
template <typename Read>
auto or_nothing(const Read &read) -> decltype(read())
{
    try {
        return read();
    } catch (const Failure &) {
        return {};
    }
}

// What is recorded of saved and of kept archives, read once.
class VersionRecords {
public:
    VersionRecords() : saved_(or_nothing(saved_archives)), kept_(or_nothing(generations)) {}

    std::vector<int> of(const std::string &sha256) const
    {
        std::vector<int> found;
        for (const SavedArchive &archive : saved_) {
            if (archive.sha256 == sha256 && archive.version > 0) {
                found.push_back(archive.version);
            }
        }
        for (const Generation &generation : kept_) {
            if (generation.sha256 == sha256 && generation.version_recorded) {
                found.push_back(generation.version);
            }
        }
        return found;
    }

private:
    std::vector<SavedArchive> saved_;
    std::vector<Generation> kept_;
};

}  // namespace

std::vector<int> recorded_versions(const std::string &sha256) { return VersionRecords().of(sha256); }

std::string address_of(StoragePlace place)
{
    return place == StoragePlace::backup_on_flash   ? flash_backup_address
           : place == StoragePlace::accept_on_flash ? flash_accept_address
                                                    : place_of_slot(slot_of(place));
}

StoragePlace place_at(const std::string &address)
{
    for (const StoragePlace place : storage_places) {
        if (address == address_of(place)) {
            return place;
        }
    }
    throw Failure(Exit::usage, "bad-place", "'" + address + "' is no place of archives.",
                  "The places are flash:backup, flash:accept, slot:" KESTA_SLOT0 " and slot:" KESTA_SLOT1 ".");
}

bool is_on_flash(StoragePlace place)
{
    return place == StoragePlace::backup_on_flash || place == StoragePlace::accept_on_flash;
}

std::string slot_of(StoragePlace place) { return place == StoragePlace::slot0 ? KESTA_SLOT0 : KESTA_SLOT1; }

const char *path_of(StoragePlace place) { return place == StoragePlace::backup_on_flash ? flash_backup : flash_accept; }

StoragePlace slot_place(const std::string &slot)
{
    return slot == KESTA_SLOT0 ? StoragePlace::slot0 : StoragePlace::slot1;
}

ArchiveEvidence evidence_at(StoragePlace place, const std::function<void()> &look)
{
    return is_on_flash(place) ? evidence_of_file(path_of(place), look) : evidence_of_slot(slot_of(place), look);
}

bool Survey::is_recorded(StoragePlace place, int version) const
{
    const std::vector<int> &all = recorded_at(place);
    return version > 0 && std::find(all.begin(), all.end(), version) != all.end();
}

Survey survey_places()
{
    Survey survey;
    survey.controller = learn_own_number();
    for (const StoragePlace place : storage_places) {
        survey.evidence[static_cast<std::size_t>(place)] = evidence_at(place);
    }
    const VersionRecords records;  // after the archives: whoever saves one meanwhile has noted it before
    for (std::size_t index = 0; index < storage_places.size(); ++index) {
        if (survey.evidence[index].good()) {
            survey.recorded[index] = records.of(survey.evidence[index].sha256);
        }
    }
    survey.mirror = read_mirror();
    survey.versions = read_numbers(survey.controller);
    return survey;
}

std::optional<Generation> kept_archive_of(int version)
{
    const std::vector<Generation> kept = or_nothing(generations);
    for (const bool recorded : {true, false}) {
        for (const Generation &generation : kept) {
            if (version <= 0 || generation.version != version || generation.version_recorded != recorded) {
                continue;
            }
            const ArchiveEvidence evidence = evidence_of_file(path_of_generation(generation.sha256));
            if (evidence.good() && evidence.sha256 == generation.sha256) {
                return generation;
            }
        }
    }
    return std::nullopt;
}

std::string path_of_generation(const std::string &sha256)
{
    return std::string(generations_folder) + "/" + archive_name(sha256);
}

std::string address_of(const Generation &generation) { return "generation:" + generation.sha256; }

}  // namespace engine
