// One archive brought from one place to another, so that nothing can be lost by it.
#pragma once

#include <functional>
#include <string>

#include "generations.h"
#include "storage_places.h"

namespace engine {

struct ArchiveCopyRequest {
    std::string from;    // an address of storage_places.h, or "generation:SHA256"
    std::string to;      // an address of storage_places.h
    std::string sha256;  // what the source has to be; empty: whatever it is
};

// What a copy would do; told before it is done.
struct ArchiveCopyPlan {
    StoragePlace to = StoragePlace::backup_on_flash;
    std::string sha256;
    std::uint64_t bytes = 0;
    bool is_there = false;  // the target has it already
};

// Reads both. Throws Failure: the source is not whole or not what was asked for, or the target can't be read, and so
// may be the last good one.
ArchiveCopyPlan plan_archive_copy(const ArchiveCopyRequest &request);

// Tests the source once more, keeps what the target holds as a generation, writes, and reads back. A place on flash has
// its old archive or the new one at any moment. Generations are dropped for --keep and on a full disk only, and the
// source never. Throws Failure.
KeepReport copy_archive(const ArchiveCopyRequest &request, const std::string &verb, const KeepRule &rule);

}  // namespace engine
