#include "command_pipe.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include <utility>

#include "command_environment.h"
#include "ownership.h"

namespace kesta {

PipePtr::PipePtr(const char *command)
{
    MutexGuard guard(popen_mutex);
    const StandardDescriptorsTaken taken;
    settle_command_environment();
    stream_ = popen(command, "r");
    if (stream_) {
        const int before = errno;
        (void)fcntl(fileno(stream_), F_SETFD, FD_CLOEXEC);  // no child of another thread gets it
        errno = before;
    }
}

PipePtr::~PipePtr()
{
    if (stream_) {
        CancelOff off;
        ErrnoKept keep;
        (void)close();
    }
}

bool PipePtr::read_line(Line &line)
{
    line.fill('\0');
    if (!fgets(line.data(), static_cast<int>(line.size()), stream_)) {
        return false;
    }
    const std::size_t length = strlen(line.data());
    if (length > 0 && line[length - 1] == '\n') {
        line[length - 1] = '\0';
    }
    return true;
}

int PipePtr::close()
{
    FILE *stream = std::exchange(stream_, nullptr);
    if (!stream) {
        return -1;
    }
    CancelOff off;  // the mutex is held while the child is waited for
    MutexGuard guard(popen_mutex);
    return pclose(stream);
}

}  // namespace kesta
