#include "name_file.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "atomic_file.h"
#include "scoped.h"

namespace platform {
namespace {

// Held by one writer of a folder's files at a time. It is the folder that is locked: the file itself is
// replaced by each writer.
class FolderLock {
public:
    explicit FolderLock(const std::string &path) : fd_(open_folder(path)) {}

    int take()
    {
        if (!fd_) {
            return -errno;
        }
        while (flock(fd_.get(), LOCK_EX) != 0) {
            if (errno != EINTR) {
                return -errno;
            }
        }
        return 0;
    }

private:
    static int open_folder(const std::string &path)
    {
        const std::size_t slash = path.rfind('/');
        const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
        return open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }

    kesta::UniqueFd fd_;
};

// The contents of a plain file; nothing else is opened for long, or waited for. 0, or a negative error number.
int read_plain(const std::string &path, std::string &text)
{
    constexpr off_t longest = 1 << 20;
    const kesta::UniqueFd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!fd || fstat(fd.get(), &status) != 0) {
        return -errno;
    }
    if (!S_ISREG(status.st_mode) || status.st_size > longest) {
        return -EINVAL;
    }
    text.resize(static_cast<std::size_t>(status.st_size));
    for (std::size_t at = 0; at < text.size();) {
        const ssize_t got = pread(fd.get(), text.data() + at, text.size() - at, static_cast<off_t>(at));
        if (got < 0 && errno != EINTR) {
            return -errno;
        }
        if (got == 0) {
            text.resize(at);
        }
        at += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    return 0;
}

}  // namespace

int NameFile::read()
{
    values_.clear();
    std::string text;
    if (const int result = read_plain(path_, text); result != 0) {
        return result == -ENOENT ? 0 : result;
    }
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        const std::string line = text.substr(at, end - at);
        const std::size_t equals = line.find('=');
        if (equals != std::string::npos) {
            values_.emplace_back(line.substr(0, equals), line.substr(equals + 1));
        }
        at = end + 1;
    }
    return 0;
}

std::optional<std::string> NameFile::value(const std::string &name) const
{
    const auto found =
        std::find_if(values_.begin(), values_.end(), [&](const auto &entry) { return entry.first == name; });
    return found == values_.end() ? std::nullopt : std::optional(found->second);
}

int NameFile::update(const std::vector<std::pair<std::string, std::string>> &changes)
{
    FolderLock lock(path_);
    if (const int result = lock.take(); result != 0) {
        return result;
    }
    if (const int result = read(); result != 0) {
        return result;
    }
    const auto before = values_;
    for (const auto &change : changes) {
        const auto found = std::find_if(values_.begin(), values_.end(),
                                        [&](const auto &entry) { return entry.first == change.first; });
        if (found == values_.end()) {
            values_.push_back(change);
        } else {
            found->second = change.second;
        }
    }
    return values_ == before ? 0 : write();
}

int NameFile::write() const
{
    std::string text;
    for (const auto &[name, value] : values_) {
        text.append(name).append("=").append(value).append("\n");
    }
    return replace_file(path_.c_str(), text.data(), static_cast<unsigned>(text.size()));
}

bool is_name(const std::string &text)
{
    return !text.empty() && text[0] != '-' && std::all_of(text.begin(), text.end(), [](char c) {
        return isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' || c == '.' || c == '?';
    });
}

bool is_value(const std::string &text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return isprint(static_cast<unsigned char>(c)) != 0; });
}

}  // namespace platform
