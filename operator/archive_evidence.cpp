#include "archive_evidence.h"

#include <errno.h>
#include <fcntl.h>
#include <kesta/kesta.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "archive_members.h"
#include "beneath.h"
#include "checksum.h"
#include "trace_capture.h"

namespace engine {
namespace {

constexpr std::size_t piece_size = 256UL << 10;

using NextPiece = std::function<std::string_view()>;

// The bytes can't be had; not to be mistaken for what the test of an archive throws.
struct ReadError {
    std::string reason;
};

// Hands pieces on, and keeps count of them.
class Counted {
public:
    explicit Counted(NextPiece next) : next_(std::move(next)) {}
    std::string_view next()
    {
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
    Checksum checksum_;
    std::uint64_t bytes_ = 0;
};

// Whether all is there. An error of reading is told when libarchive is left: it lets only exceptions of the standard
// library through.
void test(Counted &pieces, std::uint64_t size, ArchiveEvidence &evidence, const std::function<void()> &look)
{
    std::optional<ReadError> broken;
    const auto next = [&]() -> std::string_view {
        try {
            return pieces.next();
        } catch (const ReadError &error) {
            broken = error;
            return {};
        }
    };
    try {
        for_each_member(PackedArchive{next, size, "The archive", archive_limits(), look},
                        [](const Member &, const ReadMember &) {});
        evidence.state = CopyState::good;
    } catch (const DamagedArchive &damaged) {
        evidence.state = CopyState::damaged;
        evidence.reason = damaged.reason();
    } catch (const Failure &refused) {
        if (refused.code() != "archive-too-large") {
            throw;  // the look's, or a setting's
        }
        evidence.state = CopyState::unreadable;
        evidence.beyond_limits = true;
        evidence.reason = refused.what() + strlen("The archive ");
        evidence.reason.pop_back();  // the sentence's end
    }
    if (broken) {
        throw ReadError(*broken);
    }
}

ArchiveEvidence unreadable(const std::string &reason)
{
    ArchiveEvidence evidence;
    evidence.state = CopyState::unreadable;
    evidence.reason = reason;
    return evidence;
}

ArchiveEvidence examine(const NextPiece &next, std::uint64_t size, const std::function<void()> &look)
{
    ArchiveEvidence evidence;
    Counted pieces(next);
    try {
        test(pieces, size, evidence, look);
        pieces.read_rest();
    } catch (const ReadError &error) {
        return unreadable(error.reason);
    }
    evidence.bytes = pieces.bytes();
    evidence.sha256 = pieces.sha256();
    return evidence;
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
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        return errno == ENOENT ? ArchiveEvidence() : unreadable(strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        return unreadable(kind_of(status.st_mode));
    }
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return unreadable(!file ? strerror(errno) : "it is replaced just now");
    }
    std::string piece(piece_size, '\0');
    const auto next = [&]() -> std::string_view {
        ssize_t count;
        while ((count = read(file.get(), piece.data(), piece.size())) < 0 && errno == EINTR) {
        }
        if (count < 0) {
            throw ReadError{strerror(errno)};
        }
        return {piece.data(), static_cast<std::size_t>(count)};
    };
    ArchiveEvidence evidence = examine(next, static_cast<std::uint64_t>(status.st_size), look);
    evidence.modified = status.st_mtim.tv_sec;
    return evidence;
}

ArchiveEvidence evidence_of_bytes(std::string_view bytes, const std::function<void()> &look)
{
    std::string_view rest = bytes;
    return examine([&rest] { return std::exchange(rest, {}); }, bytes.size(), look);
}

ArchiveEvidence evidence_of_slot(const std::string &slot, std::string &bytes, const std::function<void()> &look)
{
    const std::uint64_t before = traced_lines();
    void *data = nullptr;
    unsigned size = 0;
    const int result = kestal_backup_rw(slot.c_str(), KESTA_FILE_READ, &data, &size);
    bytes.clear();
    if (result == KESTA_OK) {
        bytes.assign(static_cast<const char *>(data), size);
    }
    kestal_free_debug(data, __FILE__, __LINE__, 0);
    if (result == KESTA_OK) {
        return evidence_of_bytes(bytes, look);
    }
    const std::string opened = "[backup_rw] File Open(R) ERROR f_name=" + slot + " result=";
    if (was_traced(opened + std::to_string(-ENOENT) + " ", before)) {
        return {};
    }
    return unreadable(was_traced("Close flag=false", before) ? "its last writer did not close it"
                                                             : "the system backup area gave an error");
}

ArchiveEvidence evidence_of_slot(const std::string &slot, const std::function<void()> &look)
{
    std::string bytes;
    return evidence_of_slot(slot, bytes, look);
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
