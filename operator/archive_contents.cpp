#include "archive_contents.h"

#include <errno.h>
#include <kesta/kesta.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "checksum.h"
#include "whole_file.h"

namespace engine {
namespace {

constexpr std::size_t piece_size = 256UL << 10;

[[noreturn]] void fail_reading(const std::string &path)
{
    const int error = errno;
    try {
        fail_file(path, "read");
    } catch (const Failure &failure) {
        throw UnreadableContents(failure, strerror(error));
    }
}

struct OpenFile {
    Descriptor file;
    std::string path;

    NextPiece pieces(const std::shared_ptr<OpenFile> &self) const
    {
        if (lseek(file.get(), 0, SEEK_SET) != 0) {
            fail_reading(path);
        }
        return [self, piece = std::string(piece_size, '\0')]() mutable -> std::string_view {
            ssize_t count;
            while ((count = read(self->file.get(), piece.data(), piece.size())) < 0 && errno == EINTR) {
            }
            if (count < 0) {
                fail_reading(self->path);
            }
            return {piece.data(), static_cast<std::size_t>(count)};
        };
    }
};

// What the library read, in its own memory.
struct SlotBytes {
    void *data = nullptr;
    unsigned size = 0;

    SlotBytes() = default;
    SlotBytes(const SlotBytes &) = delete;
    SlotBytes &operator=(const SlotBytes &) = delete;
    ~SlotBytes() { kestal_free_debug(data, __FILE__, __LINE__, 0); }

    std::string_view view() const { return {static_cast<const char *>(data), data ? size : 0}; }
};

// All of it is one piece.
template <typename Held>
ArchiveContents contents_of_held(const std::shared_ptr<Held> &held, std::string_view bytes)
{
    return {bytes.size(), [held, bytes] {
                return [held, rest = bytes]() mutable {
                    return std::exchange(rest, {});
                };
            }};
}

}  // namespace

ArchiveContents contents_of_bytes(std::string bytes)
{
    const auto held = std::make_shared<const std::string>(std::move(bytes));
    return contents_of_held(held, *held);
}

ArchiveContents contents_of_file(Descriptor file, const std::string &path)
{
    const auto open = std::make_shared<OpenFile>(OpenFile{std::move(file), path});
    struct stat status {};
    if (!open->file || fstat(open->file.get(), &status) != 0) {
        fail_reading(path);
    }
    return {static_cast<std::uint64_t>(status.st_size), [open] {
                return open->pieces(open);
            }};
}

ArchiveContents contents_of_path(const std::string &path) { return contents_of_file(open_plain_file(path), path); }

ArchiveContents read_slot(const std::string &slot)
{
    const auto held = std::make_shared<SlotBytes>();
    if (kestal_backup_rw(slot.c_str(), KESTA_FILE_READ, &held->data, &held->size) != KESTA_OK) {
        throw Failure(Exit::platform, slot_unreadable, "Slot " + slot + " can't be read.",
                      "Check the system backup area; --trace 1 shows the failed call.");
    }
    return contents_of_held(held, held->view());
}

ArchiveContents contents_of_slot(const std::string &slot, std::uint64_t size)
{
    return {size, [slot] {
                return read_slot(slot).pieces();
            }};
}

ArchiveContents contents_known_as(const ArchiveContents &contents, const std::string &sha256, const std::string &name)
{
    return {contents.size, [=] {
                const auto checksum = std::make_shared<Checksum>();
                return [=, next = contents.pieces(), is_known = false]() mutable {
                    const std::string_view piece = is_known ? std::string_view() : next();
                    checksum->add(piece);
                    const bool is_end = piece.empty() && !is_known;  // a reader may ask for more behind it
                    is_known = is_known || is_end;
                    if (is_end && checksum->text() != sha256) {
                        throw Failure(Exit::platform, "changed-meanwhile", name + " was changed while it was read.",
                                      "Somebody else writes there, or its disk fails. Run the command again.");
                    }
                    return piece;
                };
            }};
}

void for_each_piece(const ArchiveContents &contents, const std::function<void(std::string_view piece)> &take)
{
    const NextPiece next = contents.pieces();
    for (std::string_view piece = next(); !piece.empty(); piece = next()) {
        take(piece);
    }
}

std::string bytes_of(const ArchiveContents &contents)
{
    std::string bytes;
    bytes.reserve(contents.size);
    for_each_piece(contents, [&bytes](std::string_view piece) { bytes += piece; });
    return bytes;
}

std::string checksum_of(const ArchiveContents &contents)
{
    Checksum checksum;
    for_each_piece(contents, [&checksum](std::string_view piece) { checksum.add(piece); });
    return checksum.text();
}

bool same_contents(const ArchiveContents &one, const ArchiveContents &other)
{
    if (one.size != other.size) {
        return false;
    }
    const NextPiece next = one.pieces();
    const NextPiece next_other = other.pieces();
    std::string_view piece = next();
    std::string_view other_piece = next_other();
    while (!piece.empty() && !other_piece.empty()) {
        const std::size_t size = std::min(piece.size(), other_piece.size());
        if (piece.substr(0, size) != other_piece.substr(0, size)) {
            return false;
        }
        piece.remove_prefix(size);
        other_piece.remove_prefix(size);
        piece = piece.empty() ? next() : piece;
        other_piece = other_piece.empty() ? next_other() : other_piece;
    }
    return piece.empty() && other_piece.empty();
}

}  // namespace engine
