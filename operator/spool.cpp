#include "spool.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>

#include "whole_file.h"

namespace engine {
namespace {

constexpr mode_t own_mode = 0600;
constexpr std::uint64_t share_of_free = 4;

// What may be written there without being in anybody's way, this run's included.
std::uint64_t room_for(int file, std::uint64_t spared)
{
    struct statvfs disk {};
    struct rlimit longest {};
    if (fstatvfs(file, &disk) != 0 || getrlimit(RLIMIT_FSIZE, &longest) != 0) {
        return 0;
    }
    const std::uint64_t free = std::uint64_t{disk.f_bavail} * disk.f_frsize;
    // A longer file than a process may write would end it with a signal.
    return std::min<std::uint64_t>(free > spared ? (free - spared) / share_of_free : 0, longest.rlim_cur);
}

bool write_at(int file, std::uint64_t offset, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t put = pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (put < 0 && errno == EINTR) {
            continue;
        }
        if (put <= 0) {
            return false;
        }
        offset += static_cast<std::uint64_t>(put);
        bytes.remove_prefix(static_cast<std::size_t>(put));
    }
    return true;
}

}  // namespace

// Where the file system can't make one without a name there is none: one with a name could be left behind.
void Spool::make_file()
{
    is_made_ = true;
    file_ = Descriptor(open(rule_.folder.c_str(), O_TMPFILE | O_EXCL | O_RDWR | O_CLOEXEC, own_mode));
    most_in_file_ = file_ ? room_for(file_.get(), rule_.spared) : 0;
}

bool Spool::write_tail()
{
    if (!is_made_) {
        make_file();
    }
    if (size() > most_in_file_) {
        return false;
    }
    const bool is_written = write_at(file_.get(), in_file_, tail_);
    length_ = std::max(length_, size());
    if (!is_written) {
        cut_file();
        most_in_file_ = 0;  // it is not tried again and again
        return false;
    }
    in_file_ += tail_.size();
    tail_.clear();
    return true;
}

bool Spool::append(std::string_view bytes)
{
    if (size() + bytes.size() > rule_.bytes) {
        return false;
    }
    if (tail_.size() + bytes.size() > rule_.in_memory && !write_tail()) {
        return false;
    }
    tail_.reserve(rule_.in_memory);  // once: a text that grows is in memory twice
    tail_.append(bytes);
    return true;
}

void Spool::cut(std::uint64_t size)
{
    tail_.resize(size > in_file_ ? size - in_file_ : 0);
    in_file_ = std::min(in_file_, size);
    if (in_file_ == 0 || length_ - in_file_ >= rule_.in_memory) {
        cut_file();
    }
}

void Spool::cut_file()
{
    if (length_ > in_file_ && ftruncate(file_.get(), static_cast<off_t>(in_file_)) != 0) {
        most_in_file_ = 0;  // what is in it can be read, but it is not to grow
    }
    length_ = in_file_;
}

std::string_view Spool::read(std::uint64_t offset, std::uint64_t most, std::string &buffer) const
{
    if (offset >= in_file_) {
        return std::string_view(tail_).substr(offset - in_file_, most);
    }
    const std::size_t wanted = std::min({most, in_file_ - offset, std::uint64_t{buffer.size()}});
    ssize_t got;
    while ((got = pread(file_.get(), buffer.data(), wanted, static_cast<off_t>(offset))) < 0 && errno == EINTR) {
    }
    if (got <= 0) {
        errno = got == 0 ? EIO : errno;
        fail_file("What is kept aside in " + rule_.folder, "read back");
    }
    return {buffer.data(), static_cast<std::size_t>(got)};
}

// Flushes nothing: it waits for what the kernel writes already, and tells of what failed since the file was made.
void Spool::require_written() const
{
    if (file_ && sync_file_range(file_.get(), 0, 0, SYNC_FILE_RANGE_WAIT_BEFORE) != 0) {
        fail_file("What is kept aside in " + rule_.folder, "written");
    }
}

}  // namespace engine
