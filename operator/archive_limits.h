// How much an archive may hold: one that was made to fill a disk, or to keep a command busy, is
// refused. And how many generations of archives are kept.
#pragma once

#include <cstdint>

namespace engine {

struct ArchiveLimits {
    std::uint64_t bytes = std::uint64_t{4} << 30;  // unpacked
    std::uint64_t members = 100000;
    std::uint64_t ratio = 1000;  // of unpacked to packed bytes, in archives of more than 64 MiB

    // Less than this is never too much for its packed size: a file of zeros packs very well.
    static constexpr std::uint64_t free_of_ratio = std::uint64_t{64} << 20;

    bool operator==(const ArchiveLimits &) const = default;
};

// The generations that are kept of archives that were replaced, and the room that they may take.
struct GenerationLimits {
    std::uint64_t count = 10;
    std::uint64_t bytes = std::uint64_t{1} << 30;
};

// Where a controller has other limits: a line of "NAME = NUMBER" for each of archive_bytes, archive_members,
// archive_ratio, generations, generation_bytes and packing_threads, and comments that begin with "#".
inline constexpr const char *archive_limits_file = "/etc/kesta/archives.conf";

// The limits of this controller. Throw Failure: a line of the file can't be used.
ArchiveLimits archive_limits();
GenerationLimits generation_limits();

// With how many processors an archive is packed. 0: with all; 1: by kestactl alone, without another program.
std::uint64_t packing_threads();

}  // namespace engine
