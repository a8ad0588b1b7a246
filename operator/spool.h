// Bytes that are put aside, to be read again by the same run: in memory while they are few, beyond that in a file that has
// no name. So nothing of them is left however the run ends, and nobody else can open them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "beneath.h"

namespace engine {

struct SpoolRule {
    std::string folder;  // on a disk, and root's alone
    std::uint64_t in_memory = std::uint64_t{512} << 10;
    std::uint64_t bytes = std::uint64_t{256} << 20;  // in all
    std::uint64_t spared = 0;                        // of the room on the disk: what else the run writes there
};

class Spool {
public:
    explicit Spool(SpoolRule rule) : rule_(std::move(rule)) {}

    std::uint64_t size() const { return in_file_ + tail_.size(); }

    // All of them, behind those before. False: there is no room for them, or no file can be made; nothing has changed.
    // The file takes a quarter at most of what is free on its disk when it is made.
    bool append(std::string_view bytes);

    // Gives up what is behind so many bytes, and its room: not for each little piece, but as soon as it is as much as may be
    // in memory.
    void cut(std::uint64_t size);

    // What is at an offset, up to so many bytes and to the size of the buffer, which may hold them afterwards. Never
    // nothing, within the size. Throws Failure: they can't be read back.
    std::string_view read(std::uint64_t offset, std::uint64_t most, std::string &buffer) const;

    // Once all is read: nothing of it went to the disk in vain, and came back as something else. Throws Failure.
    void require_written() const;

private:
    bool write_tail();
    void make_file();
    void cut_file();

    SpoolRule rule_;
    bool is_made_ = false;  // or could not be
    Descriptor file_;
    std::uint64_t in_file_ = 0;
    std::uint64_t length_ = 0;  // of the file, with what was given up and not cut off yet
    std::uint64_t most_in_file_ = 0;
    std::string tail_;  // what comes behind those in the file
};

}  // namespace engine
