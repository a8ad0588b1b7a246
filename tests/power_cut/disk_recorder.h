// Records what the embedded platform does to the disk, and makes the disks that a power cut may leave
// behind: at every step, with every part of what was not flushed yet written or not.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace test {

// Files by their paths, as they are found after a power cut.
using Disk = std::map<std::string, std::string>;

// One thing that was done to the disk.
struct DiskEvent {
    enum class Kind {
        write,         // bytes of a file
        store,         // the same, into a mapped file: the file does not grow by it
        name,          // a folder's entry: name stands for file; file 0: it is gone
        flush_file,    // everything written to a file
        flush_range,   // what was written to a range of a file
        flush_folder,  // the entries of a folder
        returned,      // the operation that is recorded came back
    };
    Kind kind = Kind::returned;
    int file = 0;
    std::size_t offset = 0;
    std::size_t size = 0;
    std::string bytes;
    std::string path;    // of a name: the entry; of a flush: what is flushed, as its label says it
    std::string former;  // of a name: the entry that it replaces, or nothing
};

struct Recording {
    Disk before;
    std::map<std::string, int> files;  // which file a path stood for then
    std::vector<DiskEvent> events;

    // The flushes, each kind once.
    std::set<std::string> flushes() const;
};

// From here on, until recorded() is called, everything is recorded that happens below these folders.
void record(const std::vector<std::string> &folders);
void operation_returned();
Recording recorded();

// While a state is looked at, nothing has to reach the real disk.
void skip_flushes(bool skip);

// Puts a disk in the place of what is in these folders.
void put_disk(const std::vector<std::string> &folders, const Disk &disk);
Disk read_disk(const std::vector<std::string> &folders);

// Calls visit for every disk that a power cut may leave, with the number of operations that had
// returned by then, until it returns false. A flush whose label is left_out is taken for not made.
void for_each_power_cut(const Recording &recording, const std::string &left_out,
                        const std::function<bool(const Disk &disk, int returned)> &visit);

}  // namespace test
