// The open files of a process, and the numbers by which they are called.
#pragma once

#include <array>
#include <memory>

#include "backup_reader.h"
#include "backup_writer.h"

namespace etcd {

// One of the two.
struct OpenFile {
    std::unique_ptr<BackupReader> reader;
    std::unique_ptr<BackupWriter> writer;
    int generation = 0;
    bool used = false;
};

class OpenFiles {
public:
    // A number for a file, 0 or more; -EMFILE: too many are open.
    int add(std::unique_ptr<BackupReader> reader, std::unique_ptr<BackupWriter> writer);

    // Null for a number that is no open file's.
    OpenFile *find(int handle);

    static void remove(OpenFile &file);

private:
    static constexpr int most = 64;
    std::array<OpenFile, most> files_;
};

}  // namespace etcd
