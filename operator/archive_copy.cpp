#include "archive_copy.h"

#include <kesta/kesta.h>

#include "appliance_state.h"
#include "checksum.h"
#include "current_change.h"
#include "failure.h"
#include "kesta/paths.h"
#include "leftovers.h"
#include "whole_file.h"

namespace engine {
namespace {

constexpr std::string_view generation_prefix = "generation:";

// What is copied is what was tested: its contents tell if they are something else by then.
struct Source {
    ArchiveEvidence evidence;
    ArchiveContents contents;
};

std::string read_generation(const std::string &sum)
{
    if (!is_checksum(sum)) {
        throw Failure(Exit::usage, "bad-place", "'" + sum + "' is no checksum of a generation.",
                      "It is the name of its file in " KESTA_FLASH_DIRECTORY "generations, without .tar.Z.");
    }
    return path_of_generation(sum);
}

Source read_file(const std::string &path)
{
    Source source;
    source.evidence = evidence_of_file(path, &source.contents, [] {});
    return source;
}

Source read_source_slot(const std::string &slot)
{
    Source source;
    source.evidence = evidence_of_slot(slot);
    source.contents =
        contents_known_as(contents_of_slot(slot, source.evidence.bytes), source.evidence.sha256, "Slot " + slot);
    return source;
}

Source read_source(const std::string &from)
{
    if (from.starts_with(generation_prefix)) {
        return read_file(read_generation(from.substr(generation_prefix.size())));
    }
    const StoragePlace place = place_at(from);
    if (is_on_flash(place)) {
        return read_file(path_of(place));
    }
    return read_source_slot(slot_of(place));
}

Source required_source(const ArchiveCopyRequest &request)
{
    Source source = read_source(request.from);
    require_whole(source.evidence, "The archive of " + request.from);
    if (!request.sha256.empty() && source.evidence.sha256 != request.sha256) {
        throw Failure(Exit::no, "changed-meanwhile",
                      request.from + " holds another archive than the one that was named.",
                      "Nothing was changed. Look at 'kestactl verify' again.");
    }
    return source;
}

// What can't be read may be whole.
void require_readable_target(const ArchiveEvidence &target, const std::string &to)
{
    if (target.state == CopyState::unreadable) {
        throw Failure(Exit::platform, "target-unreadable",
                      to + " can't be read, and is not overwritten: " + target.reason + ".",
                      "Check its disk, or the limits of archives: what it holds may be whole.");
    }
}

// The library takes it whole.
void write_slot(const std::string &slot, const ArchiveContents &contents)
{
    std::string bytes = bytes_of(contents);
    void *data = bytes.data();
    auto size = static_cast<unsigned>(bytes.size());
    if (kestal_backup_rw(slot.c_str(), KESTA_FILE_WRITE, &data, &size) != KESTA_OK) {
        fail_call(
            "slot-failed", "The archive was not stored in slot " + slot + ".",
            "What the slot held is kept as a generation. Look at --trace 1 and at the system backup area, then run the "
            "command again.");
    }
}

}  // namespace

ArchiveCopyPlan plan_archive_copy(const ArchiveCopyRequest &request)
{
    const Source source = required_source(request);
    const StoragePlace to = place_at(request.to);
    const ArchiveEvidence target = evidence_at(to);
    require_readable_target(target, request.to);
    return {to, source.evidence.sha256, source.evidence.bytes, target.same_bytes(source.evidence)};
}

KeepReport copy_archive(const ArchiveCopyRequest &request, const std::string &verb, const KeepRule &given)
{
    KeepReport report;
    const Source source = required_source(request);
    KeepRule rule = given;
    rule.only_adds = true;
    rule.source = source.evidence.sha256;
    const StoragePlace to = place_at(request.to);
    const ArchiveEvidence target = evidence_at(to);
    require_readable_target(target, request.to);
    if (target.same_bytes(source.evidence)) {
        return report;
    }
    const std::string place = is_on_flash(to) ? path_of(to) : place_of_slot(slot_of(to));
    report = keep_leftovers(verb, rule);  // the new archive is written beside the old one, over what lies there
    if (target.good()) {
        report.add(keep_replaced({{place, Replacing::in_place}}, verb, rule));
    } else {
        note_replaced_archive({place, "", "", target.absent()});
    }
    note_new_archive(place, source.evidence.sha256);
    if (is_on_flash(to)) {
        with_room_on_flash(
            report, [&] { write_file_whole(path_of(to), source.contents.pieces()); }, rule.source);
    } else {
        write_slot(slot_of(to), source.contents);
    }
    if (!evidence_at(to).same_bytes(source.evidence)) {
        throw Failure(Exit::platform, "copy-differs", request.to + " does not hold what was written to it.",
                      "Check its disk. What it held before is kept as a generation.");
    }
    return report;
}

}  // namespace engine
