// A file of the backup area, as it was when it was opened.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "backup_area.h"

namespace etcd {

class BackupReader {
public:
    // Opens a file: 0, -ENOENT, -EIO if it is damaged, or what the client returned.
    int open(BackupArea &area, const std::string &name);

    // The size that goes with the contents.
    std::uint64_t size();

    // Reads bytes, fewer where the contents end. A negative errno: nothing of the buffer is meant. -ESTALE: the
    // contents went away, since the file was replaced meanwhile.
    std::int64_t read(BackupArea &area, char *to, std::uint64_t size, std::uint64_t offset);

private:
    int fetch(BackupArea &area, std::uint64_t number, std::string &stored);
    int read_chunks(BackupArea &area, char *to, std::uint64_t size, std::uint64_t offset);
    int read_anew(BackupArea &area);

    std::string name_;
    KeyValue key_;
    Manifest manifest_;
    bool by_revision_ = true;  // the revision is there still
    bool told_ = false;        // its size
    bool delivered_ = false;   // bytes of it
    bool replaced_ = false;    // it was opened anew already
};

}  // namespace etcd
