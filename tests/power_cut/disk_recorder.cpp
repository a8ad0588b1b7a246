#include "disk_recorder.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <random>

extern "C" {
int __real_open(const char *path, int flags, ...);
int __real_mkostemp(char *name, int flags);
ssize_t __real_pwrite(int fd, const void *bytes, size_t size, off_t offset);
int __real_posix_fallocate(int fd, off_t offset, off_t size);
void *__real_mmap(void *at, size_t size, int protection, int flags, int fd, off_t offset);
int __real_munmap(void *at, size_t size);
int __real_fsync(int fd);
int __real_msync(void *at, size_t size, int flags);
int __real_rename(const char *from, const char *to);
int __real_unlink(const char *path);
int __real_unlinkat(int folder, const char *name, int flags);
}

namespace test {
namespace {

namespace fs = std::filesystem;
using Kind = DiskEvent::Kind;

constexpr std::size_t word = 8;  // stores into a mapped page reach the disk in pieces of this size
constexpr std::size_t sector = 512;

struct Mapping {
    unsigned char *bytes;
    std::size_t size;
    ino_t inode;
    std::string path;
    std::string seen;  // what has been recorded
};

std::recursive_mutex mutex;
std::vector<Mapping> mappings;
std::vector<std::string> watched;
std::map<ino_t, int> numbers;
int last_number;
Recording recording;
bool is_recording;
bool flushes_skipped;

bool is_watched(const std::string &path)
{
    return is_recording && std::any_of(watched.begin(), watched.end(), [&](const std::string &folder) {
               return path.rfind(folder + "/", 0) == 0 || path == folder;
           });
}

std::string path_of(int fd)
{
    char path[4096];
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t size = readlink(link.c_str(), path, sizeof(path));
    return size > 0 ? std::string(path, static_cast<std::size_t>(size)) : "";
}

ino_t inode_of(int fd)
{
    struct stat status {};
    return fstat(fd, &status) == 0 ? status.st_ino : 0;
}

std::string name_in(const std::string &path) { return fs::path(path).filename(); }

// A temporary file's name without its random end.
std::string label_of_file(const std::string &path)
{
    const std::string name = name_in(path);
    const std::size_t end = name.find(".tmp.");
    return end == std::string::npos ? name : "temporary file";
}

void add(DiskEvent event) { recording.events.push_back(std::move(event)); }

void add_write(int file, std::size_t offset, const char *bytes, std::size_t size)
{
    for (std::size_t at = 0; at < size; at += sector) {
        const std::size_t part = std::min(sector, size - at);
        add({Kind::write, file, offset + at, part, std::string(bytes + at, part), "", ""});
    }
}

// What has been stored into mapped files since the last look.
void look_at_mappings()
{
    for (Mapping &mapping : mappings) {
        if (!is_watched(mapping.path)) {
            continue;
        }
        for (std::size_t page = 0; page < mapping.size; page += 4096) {
            const std::size_t end = std::min(page + 4096, mapping.size);
            if (memcmp(mapping.bytes + page, mapping.seen.data() + page, end - page) == 0) {
                continue;
            }
            for (std::size_t at = page; at < end; at += word) {
                const char *now = reinterpret_cast<const char *>(mapping.bytes) + at;
                if (memcmp(now, mapping.seen.data() + at, word) != 0) {
                    memcpy(mapping.seen.data() + at, now, word);
                    add({Kind::store, numbers[mapping.inode], at, word, std::string(now, word), "", ""});
                }
            }
        }
    }
}

void forget_mapping_changes()
{
    for (Mapping &mapping : mappings) {
        mapping.seen.assign(reinterpret_cast<const char *>(mapping.bytes), mapping.size);
    }
}

// Each recorded call begins with a look at what happened before it.
class Call {
public:
    Call() : lock_(mutex)
    {
        if (is_recording) {
            look_at_mappings();
        }
    }

private:
    std::lock_guard<std::recursive_mutex> lock_;
};

void new_file(int fd, const std::string &path)
{
    const int number = ++last_number;
    numbers[inode_of(fd)] = number;
    add({Kind::name, number, 0, 0, "", path, ""});
}

// Which part of a journal's life a flush of a mapped file belongs to: its first word says so.
std::string state_of(const Mapping &mapping)
{
    std::uint32_t state;
    memcpy(&state, mapping.bytes, sizeof(state));
    return state == 0 ? " (empty)" : " (holds)";
}

bool has_written_journal()
{
    return std::any_of(recording.events.begin(), recording.events.end(), [](const DiskEvent &event) {
        return event.kind == Kind::flush_range && event.path.find(".jnl") != std::string::npos;
    });
}

std::string label_of_range(const Mapping &mapping, std::size_t size)
{
    const std::string name = "region" + fs::path(mapping.path).extension().string();
    if (name.find(".jnl") == std::string::npos) {
        return name + (has_written_journal() ? "" : " (finishing another's transfer)");
    }
    return name + (size < mapping.size ? " header" + state_of(mapping) : " whole");
}

std::string label_of_folder(const std::string &folder)
{
    for (auto event = recording.events.rbegin(); event != recording.events.rend(); ++event) {
        if (event->kind == Kind::name && fs::path(event->path).parent_path() == folder) {
            const std::string what = event->file == 0 ? "removal" : event->former.empty() ? "new file" : "rename";
            return name_in(folder) + " folder after a " + what;
        }
    }
    return name_in(folder) + " folder after a new file";  // that another process made
}

// ------------------------------------------------------------------------ disks after a power cut

struct State {
    std::map<int, std::string> contents;
    std::map<std::string, int> names;
};

bool is_data(const DiskEvent &event) { return event.kind == Kind::write || event.kind == Kind::store; }

void apply(State &state, const DiskEvent &event)
{
    if (is_data(event)) {
        std::string &bytes = state.contents[event.file];
        if (bytes.size() < event.offset + event.bytes.size()) {
            if (event.kind == Kind::store) {
                return;
            }
            bytes.resize(event.offset + event.bytes.size(), '\0');
        }
        bytes.replace(event.offset, event.bytes.size(), event.bytes);
        return;
    }
    if (!event.former.empty()) {
        state.names.erase(event.former);
    }
    if (event.file == 0) {
        state.names.erase(event.path);
    } else {
        state.names[event.path] = event.file;
    }
}

bool is_flushed_by(const DiskEvent &pending, const DiskEvent &flush)
{
    switch (flush.kind) {
    case Kind::flush_file:
        return is_data(pending) && pending.file == flush.file;
    case Kind::flush_range:
        return is_data(pending) && pending.file == flush.file && pending.offset < flush.offset + flush.size &&
               pending.offset + pending.size > flush.offset;
    case Kind::flush_folder:
        return pending.kind == Kind::name && fs::path(pending.path).parent_path() == flush.former;
    default:
        return false;
    }
}

Disk to_disk(const State &state)
{
    Disk disk;
    for (const auto &[path, file] : state.names) {
        const auto found = state.contents.find(file);
        disk[path] = found != state.contents.end() ? found->second : "";
    }
    return disk;
}

std::size_t digest(const Disk &disk, int returned)
{
    std::size_t sum = static_cast<std::size_t>(returned);
    for (const auto &[path, bytes] : disk) {
        sum = sum * 1099511628211U + std::hash<std::string>()(path);
        sum = sum * 1099511628211U + std::hash<std::string>()(bytes);
    }
    return sum;
}

// Which of so many pending changes have reached the disk: all choices if they are few; otherwise the
// first ones, the last ones, one, all but one, and a fixed choice of others.
std::vector<std::vector<bool>> choices(std::size_t count)
{
    std::vector<std::vector<bool>> all;
    if (count <= 6) {
        for (std::size_t bits = 0; bits < (std::size_t{1} << count); ++bits) {
            std::vector<bool> chosen(count);
            for (std::size_t i = 0; i < count; ++i) {
                chosen[i] = (bits >> i & 1) != 0;
            }
            all.push_back(chosen);
        }
        return all;
    }
    for (std::size_t i = 0; i <= count; ++i) {
        std::vector<bool> first(count);
        std::fill_n(first.begin(), i, true);
        all.push_back(first);
        first.flip();
        all.push_back(first);
    }
    for (std::size_t i = 0; i < count; ++i) {
        std::vector<bool> one(count);
        one[i] = true;
        all.push_back(one);
        one.flip();
        all.push_back(one);
    }
    std::minstd_rand random(static_cast<unsigned>(count));  // the same ones in every run
    for (int i = 0; i < 24; ++i) {
        std::vector<bool> some(count);
        for (std::size_t j = 0; j < count; ++j) {
            some[j] = (random() & 64U) != 0;
        }
        all.push_back(some);
    }
    return all;
}

}  // namespace

std::set<std::string> Recording::flushes() const
{
    std::set<std::string> labels;
    for (const DiskEvent &event : events) {
        if (event.kind == Kind::flush_file || event.kind == Kind::flush_range || event.kind == Kind::flush_folder) {
            labels.insert(event.path);
        }
    }
    return labels;
}

Disk read_disk(const std::vector<std::string> &folders)
{
    Disk disk;
    for (const std::string &folder : folders) {
        for (const auto &entry : fs::directory_iterator(folder)) {
            std::ifstream file(entry.path(), std::ios::binary);
            disk[entry.path()] = {std::istreambuf_iterator<char>(file), {}};
        }
    }
    return disk;
}

void put_disk(const std::vector<std::string> &folders, const Disk &disk)
{
    for (const std::string &folder : folders) {
        for (const auto &entry : fs::directory_iterator(folder)) {
            fs::remove(entry.path());
        }
    }
    for (const auto &[path, bytes] : disk) {
        std::ofstream file(path, std::ios::binary);
        file << bytes;
    }
}

void record(const std::vector<std::string> &folders)
{
    const std::lock_guard<std::recursive_mutex> lock(mutex);
    watched = folders;
    recording = {};
    recording.before = read_disk(folders);
    numbers.clear();
    last_number = 0;
    for (const auto &[path, bytes] : recording.before) {
        struct stat status {};
        if (stat(path.c_str(), &status) == 0) {
            numbers[status.st_ino] = ++last_number;
            recording.files[path] = last_number;
        }
    }
    forget_mapping_changes();
    is_recording = true;
}

void operation_returned()
{
    const Call call;
    add({});
}

Recording recorded()
{
    const Call call;
    is_recording = false;
    return std::move(recording);
}

void skip_flushes(bool skip) { flushes_skipped = skip; }

void for_each_power_cut(const Recording &taken, const std::string &left_out,
                        const std::function<bool(const Disk &, int)> &visit)
{
    State flushed;
    flushed.names = taken.files;
    for (const auto &[path, file] : taken.files) {
        flushed.contents[file] = taken.before.at(path);
    }
    std::vector<DiskEvent> pending;
    std::set<std::size_t> seen;
    int returned = 0;
    const auto cut_here = [&] {
        for (const std::vector<bool> &choice : choices(pending.size())) {
            State state = flushed;
            for (std::size_t i = 0; i < pending.size(); ++i) {
                if (choice[i]) {
                    apply(state, pending[i]);
                }
            }
            Disk disk = to_disk(state);
            if (seen.insert(digest(disk, returned)).second && !visit(disk, returned)) {
                return false;
            }
        }
        return true;
    };
    for (const DiskEvent &event : taken.events) {
        if (is_data(event) || event.kind == Kind::name) {
            pending.push_back(event);
            continue;  // what is pending is cut before the next flush
        }
        if (!cut_here()) {
            return;
        }
        if (event.kind == Kind::returned) {
            ++returned;
        } else if (event.path != left_out) {
            const auto done = std::stable_partition(pending.begin(), pending.end(), [&](const DiskEvent &change) {
                return !is_flushed_by(change, event);
            });
            std::for_each(done, pending.end(), [&](const DiskEvent &change) { apply(flushed, change); });
            pending.erase(done, pending.end());
        }
    }
    (void)cut_here();
}

}  // namespace test

// ------------------------------------------------------------ the operating system's calls, recorded

using namespace test;

extern "C" {

int __wrap_open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if ((flags & O_CREAT) == 0) {
        return __real_open(path, flags);
    }
    const Call call;
    const bool is_new = access(path, F_OK) != 0;
    const int fd = __real_open(path, flags, mode);
    if (fd >= 0 && is_new && is_watched(path)) {
        new_file(fd, path);
    }
    return fd;
}

int __wrap_mkostemp(char *name, int flags)
{
    const Call call;
    const int fd = __real_mkostemp(name, flags);
    if (fd >= 0 && is_watched(name)) {
        new_file(fd, name);
    }
    return fd;
}

ssize_t __wrap_pwrite(int fd, const void *bytes, size_t size, off_t offset)
{
    const Call call;
    const ssize_t written = __real_pwrite(fd, bytes, size, offset);
    if (written > 0 && is_watched(path_of(fd))) {
        add_write(numbers[inode_of(fd)], static_cast<std::size_t>(offset), static_cast<const char *>(bytes),
                  static_cast<std::size_t>(written));
    }
    return written;
}

int __wrap_posix_fallocate(int fd, off_t offset, off_t size)
{
    const Call call;
    const int error = __real_posix_fallocate(fd, offset, size);
    if (error == 0 && is_watched(path_of(fd))) {
        const std::size_t end = static_cast<std::size_t>(offset + size);
        add({Kind::write, numbers[inode_of(fd)], end - 1, 1, std::string(1, '\0'), "", ""});
    }
    return error;
}

void *__wrap_mmap(void *at, size_t size, int protection, int flags, int fd, off_t offset)
{
    void *mapped = __real_mmap(at, size, protection, flags, fd, offset);
    if (mapped != MAP_FAILED && fd >= 0 && (flags & MAP_SHARED) != 0) {
        const std::lock_guard<std::recursive_mutex> lock(mutex);
        auto *bytes = static_cast<unsigned char *>(mapped);
        mappings.push_back(
            {bytes, size, inode_of(fd), path_of(fd), std::string(reinterpret_cast<char *>(bytes), size)});
    }
    return mapped;
}

int __wrap_munmap(void *at, size_t size)
{
    const Call call;
    std::erase_if(mappings, [at](const Mapping &mapping) { return mapping.bytes == at; });
    return __real_munmap(at, size);
}

int __wrap_fsync(int fd)
{
    const Call call;
    const std::string path = path_of(fd);
    if (is_watched(path)) {
        if (fs::is_directory(path)) {
            add({Kind::flush_folder, 0, 0, 0, "", label_of_folder(path), path});
        } else {
            add({Kind::flush_file, numbers[inode_of(fd)], 0, 0, "", label_of_file(path), ""});
        }
    }
    return flushes_skipped ? 0 : __real_fsync(fd);
}

int __wrap_msync(void *at, size_t size, int flags)
{
    const Call call;
    for (const Mapping &mapping : mappings) {
        const auto *from = static_cast<unsigned char *>(at);
        if (from >= mapping.bytes && from < mapping.bytes + mapping.size && is_watched(mapping.path)) {
            const std::size_t offset = static_cast<std::size_t>(from - mapping.bytes);
            add({Kind::flush_range, numbers[mapping.inode], offset, size, "", label_of_range(mapping, size), ""});
        }
    }
    return flushes_skipped ? 0 : __real_msync(at, size, flags);
}

int __wrap_rename(const char *from, const char *to)
{
    const Call call;
    struct stat status {};
    const bool known = stat(from, &status) == 0;
    const int result = __real_rename(from, to);
    if (result == 0 && known && is_watched(to)) {
        add({Kind::name, numbers[status.st_ino], 0, 0, "", to, from});
    }
    return result;
}

int __wrap_unlink(const char *path)
{
    const Call call;
    const int result = __real_unlink(path);
    if (result == 0 && is_watched(path)) {
        add({Kind::name, 0, 0, 0, "", path, ""});
    }
    return result;
}

int __wrap_unlinkat(int folder, const char *name, int flags)
{
    const Call call;
    const int result = __real_unlinkat(folder, name, flags);
    const std::string path = path_of(folder) + "/" + name;
    if (result == 0 && is_watched(path)) {
        add({Kind::name, 0, 0, 0, "", path, ""});
    }
    return result;
}

}  // extern "C"
