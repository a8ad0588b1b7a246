#include "whole_file.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "failure.h"

namespace kestactl {
namespace {

namespace fs = std::filesystem;

std::string beside(const std::string &path) { return path + ".new"; }

void flush(const std::string &path, int flags)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | flags);
    const bool flushed = fd >= 0 && fsync(fd) == 0;
    const int error = errno;
    if (fd >= 0) {
        (void)close(fd);  // nothing was written to it
    }
    if (!flushed) {
        errno = error;
        fail_file(path, "flushed to the disk");
    }
}

}  // namespace

[[noreturn]] void fail_file(const std::string &path, const std::string &what)
{
    const int error = errno;
    throw Failure(Exit::platform, "file-failed",
                  path + " could not be " + what + ": " + strerror(error) + ".",
                  "Check the folder and its space, then run the command again.");
}

void flush_file(const std::string &path) { flush(path, 0); }

void flush_folder(const std::string &path) { flush(path, O_DIRECTORY); }

void publish_file(const std::string &finished, const std::string &path)
{
    if (chmod(finished.c_str(), 0644) != 0 || rename(finished.c_str(), path.c_str()) != 0) {
        fail_file(path, "replaced");
    }
    flush_folder(fs::path(path).parent_path().string());
}

void copy_file_whole(const std::string &from, const std::string &to)
{
    const std::string aside = beside(to);
    std::error_code error;
    fs::copy_file(from, aside, fs::copy_options::overwrite_existing, error);
    if (error) {
        remove_quietly(aside);
        errno = error.value();
        fail_file(from, "copied to " + to);
    }
    flush_file(aside);
    publish_file(aside, to);
}

std::string read_whole_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(file), {}};
    if (!file.eof() && file.fail()) {
        fail_file(path, "read");
    }
    return bytes;
}

void write_file_whole(const std::string &path, const std::string &text)
{
    const std::string aside = beside(path);
    std::ofstream file(aside, std::ios::binary);
    file << text;
    file.close();
    if (!file) {
        const int error = errno;
        remove_quietly(aside);
        errno = error;
        fail_file(path, "written");
    }
    flush_file(aside);
    publish_file(aside, path);
}

void remove_quietly(const std::string &path)
{
    (void)unlink(path.c_str());  // best effort
}

}  // namespace kestactl
