#include "plain_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "ownership.h"

namespace kesta {
namespace {

constexpr int folder_flags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int file_flags = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

// A folder on the way. It is let go of by a plain system call, which is no cancellation point: such a
// descriptor has nothing to lose.
class Folder {
public:
    explicit Folder(int fd) : fd_(fd) {}
    ~Folder()
    {
        const ErrnoKept keep;
        let_go();
    }
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    void go_to(const char *part)
    {
        const int next = above_standard(openat(fd_, part, folder_flags));
        const ErrnoKept keep;
        let_go();
        fd_ = next;
    }

private:
    void let_go()
    {
        if (fd_ >= 0) {
            (void)syscall(SYS_close, std::exchange(fd_, -1));
        }
    }

    int fd_;
};

// 0, or an error number.
int check_plain(int fd)
{
    struct stat status;
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        return EINVAL;
    }
    return status.st_nlink == 1 ? 0 : EMLINK;
}

int fail(int fd, int error)
{
    {
        const CancelOff off;
        (void)close(fd);  // nothing was written to it
    }
    errno = error;
    return -1;
}

// The part of a path up to its next slash; what is left begins behind it.
std::string take_part(const char **path)
{
    while (**path == '/') {
        ++*path;
    }
    const char *begin = *path;
    while (**path != '\0' && **path != '/') {
        ++*path;
    }
    return {begin, *path};
}

}  // namespace

int open_plain_below(const char *folder, const char *path, int flags, mode_t mode)
{
    Folder at(above_standard(open(folder, folder_flags)));
    std::string part = take_part(&path);
    while (at && *path != '\0') {
        at.go_to(part.c_str());
        part = take_part(&path);
    }
    if (!at) {
        return -1;
    }
    const int fd = above_standard(openat(at.get(), part.c_str(), (flags & ~O_TRUNC) | file_flags, mode));
    if (fd < 0) {
        return -1;
    }
    if (const int error = check_plain(fd); error != 0) {
        return fail(fd, error);
    }
    if ((flags & O_TRUNC) != 0 && ftruncate(fd, 0) != 0) {
        return fail(fd, errno);
    }
    return fd;
}

FILE *stream_of(int fd)
{
    FILE *stream = fd < 0 ? nullptr : fdopen(fd, "r");
    if (!stream && fd >= 0) {
        (void)fail(fd, errno);
    }
    return stream;
}

}  // namespace kesta
