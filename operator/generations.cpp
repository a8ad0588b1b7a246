#include "generations.h"

#include <errno.h>
#include <fcntl.h>
#include <kesta/kesta.h>
#include <string.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

#include "appliance_state.h"
#include "archive_evidence.h"
#include "archive_places.h"
#include "current_change.h"
#include "generation_retention.h"
#include "kesta/paths.h"
#include "names.h"
#include "user_name.h"
#include "whole_file.h"

namespace engine {
namespace {

constexpr std::string_view slot_prefix = "slot:";
constexpr std::size_t longest_comment = 200;

GenerationChange change_now(const std::string &verb, const KeepRule &rule)
{
    return {time(nullptr), learn_own_number(), user_name(), verb, rule.comment, change_number()};
}

[[noreturn]] void refuse_unreadable(const std::string &place, const std::string &reason)
{
    throw Failure(
        Exit::platform, "not-kept", place + " can't be read, and so not be kept: " + reason + ".",
        "Nothing was overwritten: what it holds may be whole. Check its disk, or give --keep 0 to keep nothing "
        "of what is overwritten.");
}

std::optional<int> flash_version()
{
    int version = 0;
    if (kestal_read_flash_version_file(&version, KESTA_FLASH_VERSION) != KESTA_OK) {
        return std::nullopt;
    }
    return std::max(version, 0);
}

std::optional<int> area_version(int area)
{
    const int version = kestal_read_version_nolock(area, learn_own_number(), KESTA_VERSION_BY_MODE);
    return version < 0 ? std::nullopt : std::optional(version);
}

VersionsInForce versions_in_force() { return {area_version(KESTA_VER_AREA_ACCEPT), flash_version()}; }

int version_of_slot(const std::string &slot)
{
    try {
        if (slot == backup_slot()) {
            return area_version(KESTA_VER_AREA_BACKUP).value_or(0);
        }
        return slot == accept_slot() ? area_version(KESTA_VER_AREA_ACCEPT).value_or(0) : 0;
    } catch (const Failure &) {
        return 0;  // it is kept without
    }
}

// Nothing: there is none. It is read once for its checksum, and again if it has to be kept: none is held meanwhile.
std::optional<GenerationSource> slot_source(const std::string &slot)
{
    GenerationSource source;
    source.place = place_of_slot(slot);
    try {
        const ArchiveContents contents = read_slot(slot);
        source.sha256 = checksum_of(contents);
        source.contents = contents_of_slot(slot, contents.size);
    } catch (const Failure &) {
        const ArchiveEvidence evidence = evidence_of_slot(slot);
        if (evidence.absent()) {
            return std::nullopt;
        }
        refuse_unreadable("Slot " + slot, evidence.reason);
    }
    source.version = version_of_slot(slot);
    return source;
}

std::optional<GenerationSource> file_source(const ReplacedPlace &place, KeepReport &report)
{
    Descriptor file(open(place.place.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!file && errno == ENOENT) {
        return std::nullopt;
    }
    if ((!file && errno == ELOOP) || (file && fstat(file.get(), &status) == 0 && !S_ISREG(status.st_mode))) {
        report.notes.push_back(place.place + " is no plain file: it was not kept.");
        return std::nullopt;
    }
    if (!file) {
        refuse_unreadable(place.place, strerror(errno));
    }
    GenerationSource source;
    source.place = place.place;
    if (place.how == Replacing::by_rename) {
        source.file = Descriptor(fcntl(file.get(), F_DUPFD_CLOEXEC, 3));
    }
    try {
        source.contents = contents_of_file(std::move(file), place.place);
        source.sha256 = checksum_of(source.contents);
    } catch (const UnreadableContents &error) {
        refuse_unreadable(place.place, error.reason());
    }
    source.version = place.place == flash_backup ? flash_version().value_or(0) : 0;
    return source;
}

std::vector<GenerationSource> read_sources(const std::vector<ReplacedPlace> &places, KeepReport &report)
{
    std::vector<GenerationSource> sources;
    for (const ReplacedPlace &place : places) {
        const auto slot = slot_of_place(place.place);
        auto source = slot ? slot_source(*slot) : file_source(place, report);
        if (source) {
            sources.push_back(std::move(*source));
        }
    }
    return sources;
}

// For whoever wants it back: what each place held, and whether that is kept now.
void note_replaced(const std::vector<ReplacedPlace> &places, const std::vector<GenerationSource> &sources,
                   const KeepReport &report)
{
    for (const ReplacedPlace &place : places) {
        const auto source = std::find_if(sources.begin(), sources.end(),
                                         [&place](const GenerationSource &one) { return one.place == place.place; });
        const std::string sum = source == sources.end() ? "" : source->sha256;
        const bool is_kept = std::any_of(report.kept.begin(), report.kept.end(),
                                         [&sum](const Generation &one) { return one.sha256 == sum; });
        note_replaced_archive({place.place, sum, "", sum.empty() || is_kept});
    }
}

GenerationStore store(const std::function<void()> &look)
{
    // What is beyond the limits of archives can't be tested, and may be whole.
    return GenerationStore(KESTA_FLASH_DIRECTORY, [look](const ArchiveContents &contents) {
        return evidence_of(contents, look).state != CopyState::damaged;
    });
}

}  // namespace

void check_comment(const std::string &comment)
{
    const bool printable =
        std::all_of(comment.begin(), comment.end(), [](unsigned char c) { return c >= ' ' && c != 0x7f; });
    if (!printable || comment.size() > longest_comment) {
        throw Failure(Exit::usage, "bad-comment",
                      printable ? "The comment is longer than " + std::to_string(longest_comment) + " bytes."
                                : "The comment holds characters that can't be printed.",
                      "Give one line of text.");
    }
}

std::string place_of_slot(const std::string &slot) { return std::string(slot_prefix) + slot; }

std::optional<std::string> slot_of_place(const std::string &place)
{
    return place.starts_with(slot_prefix) ? std::optional(place.substr(slot_prefix.size())) : std::nullopt;
}

KeepReport keep_replaced(const std::vector<ReplacedPlace> &places, const std::string &verb, const KeepRule &rule,
                         const std::function<void()> &look)
{
    KeepReport report;
    if (!rule.keeps()) {
        report.notes.push_back("Nothing was kept of what was replaced: --keep 0 was given.");
        for (const ReplacedPlace &place : places) {
            note_replaced_archive({place.place, "", "", false});
        }
        return report;
    }
    const std::vector<GenerationSource> sources = read_sources(places, report);
    if (sources.empty()) {
        note_replaced(places, sources, report);
        return report;
    }
    GenerationLimits limits = generation_limits();
    if (rule.only_adds) {
        limits = {std::numeric_limits<std::uint64_t>::max(), std::numeric_limits<std::uint64_t>::max()};
    }
    limits.count = rule.keep.value_or(limits.count);
    try {
        report.add(store(look).keep(sources, change_now(verb, rule), limits, versions_in_force, rule.source));
    } catch (const Failure &failure) {
        if (failure.code() != "file-failed" && failure.code() != "foreign-folder") {
            throw;
        }
        throw Failure(failure.exit(), "not-kept",
                      std::string(failure.what()) +
                          " So what would be replaced can't be kept, and nothing was changed.",
                      failure.hint() + " To keep nothing of what is replaced, give --keep 0.");
    }
    note_replaced(places, sources, report);
    return report;
}

void with_room_on_flash(KeepReport &report, const std::function<void()> &write, const std::string &source)
{
    for (;;) {
        try {
            write();
            return;
        } catch (const Failure &failure) {
            if (failure.code() != no_room || generations().empty() ||
                !store([] {}).drop_oldest(versions_in_force, report, source)) {
                throw;
            }
        }
    }
}

void make_room_on_flash(KeepReport &report, std::uint64_t bytes)
{
    const auto is_short = [bytes] {
        struct statvfs room {};
        return statvfs(KESTA_FLASH_DIRECTORY, &room) == 0 && std::uint64_t{room.f_bavail} * room.f_frsize < bytes;
    };
    while (is_short() && !generations().empty() && store([] {}).drop_oldest(versions_in_force, report)) {
    }
}

std::string note_saved(const std::string &path, const std::string &group, int version, const KeepRule &rule)
{
    const ArchiveContents saved = contents_of_path(path);
    std::string sum = checksum_of(saved);
    store([] {}).note_saved({sum, saved.size, version, group, change_now("save", rule)});
    return sum;
}

std::vector<SavedArchive> saved_archives()
{
    return store([] {}).saved();
}

std::vector<Generation> generations()
{
    return store([] {}).all();
}

std::string why_generation_stays(const std::string &sha256)
{
    const VersionsInForce in_force = versions_in_force();
    if (!in_force.known()) {
        throw Failure(Exit::platform, "versions-unknown", "Which versions are in force can't be read.",
                      "Nothing is dropped without that. Look at --trace 1, and run the command again.");
    }
    const std::vector<Generation> all = generations();
    const auto is_named = [&sha256](const Generation &one) {
        return one.sha256 == sha256;
    };
    const auto found = std::find_if(all.begin(), all.end(), is_named);
    const std::vector<Generation> free = droppable(all, in_force, {});
    if (found == all.end() || std::any_of(free.begin(), free.end(), is_named)) {
        return "";
    }
    const auto is_version = [&found](int version) {
        return found->version > 0 && found->version == version;
    };
    return is_version(*in_force.accepted)  ? "it is the accepted version, and no place in force has a whole copy of it"
           : is_version(*in_force.running) ? "it is the version that this controller runs with, and no place in force "
                                             "has a whole copy of it"
                                           : "it is the last one of its group, and no place in force has a whole copy "
                                             "of it";
}

void forget_generation(const std::string &sha256)
{
    store([] {}).forget(sha256);
}

GenerationsCheck check_generations()
{
    return store([] {}).check();
}

}  // namespace engine
