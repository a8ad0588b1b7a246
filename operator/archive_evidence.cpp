#include "archive_evidence.h"

#include <errno.h>
#include <fcntl.h>
#include <kesta/kesta.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "archive_members.h"
#include "beneath.h"
#include "causes.h"
#include "checksum.h"

namespace engine {
namespace {

// Hands pieces on, and keeps count of them.
class Counted {
public:
    Counted(NextPiece next, const std::function<void()> &look) : next_(std::move(next)), look_(look) {}
    std::string_view next()
    {
        look_();
        const std::string_view piece = next_();
        bytes_ += piece.size();
        checksum_.add(piece);
        return piece;
    }
    // What the test had no need of counts as well.
    void read_rest()
    {
        while (!next().empty()) {
        }
    }
    std::uint64_t bytes() const { return bytes_; }
    std::string sha256() { return checksum_.text(); }

private:
    NextPiece next_;
    const std::function<void()> &look_;
    Checksum checksum_;
    std::uint64_t bytes_ = 0;
};

// Whether all is there.
void test(Counted &pieces, std::uint64_t size, const ArchiveLimits &limits, ArchiveEvidence &evidence,
          const std::function<void()> &look)
{
    try {
        for_each_member(PackedArchive{[&pieces] { return pieces.next(); }, size, "The archive", limits, look},
                        [](const Member &, const ReadMember &) {});
        evidence.state = CopyState::good;
    } catch (const DamagedArchive &damaged) {
        evidence.state = CopyState::damaged;
        evidence.reason = damaged.reason();
    } catch (const Failure &refused) {
        if (refused.code() != "archive-too-large") {
            throw;  // the look's, a setting's, or one of reading
        }
        evidence.state = CopyState::unreadable;
        evidence.beyond_limits = true;
        evidence.reason = refused.what() + strlen("The archive ");
        evidence.reason.pop_back();  // the sentence's end
    }
}

ArchiveEvidence unreadable(const std::string &reason)
{
    ArchiveEvidence evidence;
    evidence.state = CopyState::unreadable;
    evidence.reason = reason;
    return evidence;
}

// What the archives of this run were found to be, by their checksums: the same bytes are tested once, however many
// places hold them. Under other limits they may be something else.
class TestedArchives {
public:
    // Whether a checksum can be worth its while.
    bool has_one_of(std::uint64_t bytes, const ArchiveLimits &limits)
    {
        if (limits != limits_) {
            known_.clear();
            limits_ = limits;
        }
        return std::any_of(known_.begin(), known_.end(), [&](const auto &one) { return one.bytes == bytes; });
    }
    const ArchiveEvidence *find(const std::string &sha256) const
    {
        const auto found =
            std::find_if(known_.begin(), known_.end(), [&](const auto &one) { return one.sha256 == sha256; });
        return found == known_.end() ? nullptr : &*found;
    }
    void add(const ArchiveEvidence &evidence)
    {
        constexpr std::size_t most = 32;  // far more than there are places
        if (known_.size() == most) {
            known_.erase(known_.begin());
        }
        known_.push_back(evidence);
    }

private:
    ArchiveLimits limits_;
    std::vector<ArchiveEvidence> known_;
};

TestedArchives &tested_archives()
{
    static TestedArchives tested;
    return tested;
}

ArchiveEvidence read_and_test(const ArchiveContents &contents, const ArchiveLimits &limits,
                              const std::function<void()> &look)
{
    ArchiveEvidence evidence;
    Counted pieces(contents.pieces(), look);
    test(pieces, contents.size, limits, evidence, look);
    pieces.read_rest();
    evidence.bytes = pieces.bytes();
    evidence.sha256 = pieces.sha256();
    if (!evidence.beyond_limits) {
        tested_archives().add(evidence);
    }
    return evidence;
}

ArchiveEvidence examine(const ArchiveContents &contents, const std::function<void()> &look)
{
    try {
        const ArchiveLimits limits = archive_limits();
        if (tested_archives().has_one_of(contents.size, limits)) {
            Counted pieces(contents.pieces(), look);
            pieces.read_rest();
            if (const ArchiveEvidence *known = tested_archives().find(pieces.sha256())) {
                return *known;
            }
        }
        return read_and_test(contents, limits, look);
    } catch (const UnreadableContents &error) {
        return unreadable(error.reason());
    }
}

const char *kind_of(mode_t mode)
{
    return S_ISLNK(mode)    ? "it is a symbolic link"
           : S_ISDIR(mode)  ? "it is a folder"
           : S_ISFIFO(mode) ? "it is a FIFO"
                            : "it is no plain file";
}

}  // namespace

const char *name_of(CopyState state)
{
    switch (state) {
    case CopyState::good:
        return "good";
    case CopyState::damaged:
        return "damaged";
    case CopyState::absent:
        return "absent";
    default:
        return "unreadable";
    }
}

ArchiveEvidence evidence_of_file(const std::string &path, const std::function<void()> &look)
{
    return evidence_of_file(path, nullptr, look);
}

ArchiveEvidence evidence_of_file(const std::string &path, ArchiveContents *contents, const std::function<void()> &look)
{
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        return errno == ENOENT ? ArchiveEvidence() : unreadable(strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        return unreadable(kind_of(status.st_mode));
    }
    Descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return unreadable(!file ? strerror(errno) : "it is replaced just now");
    }
    const ArchiveContents read = contents_of_file(std::move(file), path);
    ArchiveEvidence evidence = examine(read, look);
    evidence.modified = status.st_mtim.tv_sec;
    if (contents) {
        *contents = contents_known_as(read, evidence.sha256, path);
    }
    return evidence;
}

void note_whole(const std::string &sha256, std::uint64_t bytes)
{
    (void)tested_archives().has_one_of(bytes, archive_limits());  // what was found under other limits is forgotten
    ArchiveEvidence evidence;
    evidence.state = CopyState::good;
    evidence.bytes = bytes;
    evidence.sha256 = sha256;
    tested_archives().add(evidence);
}

ArchiveEvidence evidence_of(const ArchiveContents &contents, const std::function<void()> &look)
{
    return examine(contents, look);
}

ArchiveEvidence evidence_of_bytes(std::string_view bytes, const std::function<void()> &look)
{
    return examine({bytes.size(),
                    [bytes] {
                        return [rest = bytes]() mutable {
                            return std::exchange(rest, {});
                        };
                    }},
                   look);
}

ArchiveEvidence evidence_of_slot(const std::string &slot, ArchiveContents &contents, const std::function<void()> &look)
{
    kesta_clear_cause();
    try {
        contents = read_slot(slot);
        return examine(contents, look);
    } catch (const Failure &failure) {
        if (failure.code() != slot_unreadable) {
            throw;
        }
    }
    if (slot_file_is_absent()) {
        return {};
    }
    return unreadable(kesta_last_cause()->kind == KESTA_CAUSE_CONTENT ? "its last writer did not close it"
                                                                      : "the system backup area gave an error");
}

ArchiveEvidence evidence_of_slot(const std::string &slot, const std::function<void()> &look)
{
    ArchiveContents contents;
    return evidence_of_slot(slot, contents, look);
}

void require_whole(const ArchiveEvidence &evidence, const std::string &name)
{
    if (evidence.state == CopyState::damaged) {
        throw DamagedArchive(name, evidence.reason);
    }
    if (evidence.state == CopyState::absent) {
        throw Failure(Exit::no, "no-archive", "There is no " + name + ".", "'kestactl verify' shows what there is.");
    }
    if (evidence.beyond_limits) {
        throw Failure(Exit::no, "archive-too-large", name + " " + evidence.reason + ".",
                      std::string("If it is right, raise the limit in ") + archive_limits_file + ".");
    }
    if (evidence.state == CopyState::unreadable) {
        throw Failure(Exit::platform, "archive-unreadable", name + " can't be read: " + evidence.reason + ".",
                      "Write nothing to it before it can be read: check its disk, or the limits of archives.");
    }
}

}  // namespace engine
