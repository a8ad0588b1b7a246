#include "platform_state.h"

#include <errno.h>
#include <kesta/nv_image.h>
#include <kesta/nv_items.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <limits>
#include <set>

#include "sanfwctl.h"
#include "sbacc.h"

namespace platform_copy {
namespace {

constexpr unsigned most_regions = 16;
constexpr unsigned image_region = 2;
constexpr int no_handle = -1;

std::string because(int result) { return std::string(": ") + strerror(result < 0 ? -result : result); }

[[noreturn]] void fail(const std::string &what, int result)
{
    throw Stopped(exit_failed, what + because(result) + ".");
}

int transfer(bool writes, unsigned region, std::string &bytes)
{
    cpfw_nv_region_t number = region;
    cpfw_nv_access_t access{bytes.data(), 0, bytes.size()};
    return writes ? zKTsanfwctl_write_nv(no_handle, &number, &access, 1)
                  : zKTsanfwctl_read_nv(no_handle, &number, &access, 1);
}

bool is_zero(const std::string &bytes) { return bytes.find_first_not_of('\0') == std::string::npos; }

// Every file that the library writes.
std::set<std::string> file_names()
{
    std::set<std::string> names{"kesta_backup0", "kesta_backup1"};
    unsigned count = 0;
    const KESTA_NV_ITEM *items = kesta_nv_items(&count);
    for (unsigned i = 0; i < count; ++i) {
        if (items[i].mirror != nullptr) {
            names.insert(items[i].mirror);
        }
    }
    return names;
}

class OpenedFile {
public:
    OpenedFile(const std::string &name, const char *mode)
    {
        int close_flag = 0;
        result_ = sbacc_open(name.c_str(), mode, &handle_, &close_flag);
    }
    ~OpenedFile() { (void)close(); }
    OpenedFile(const OpenedFile &) = delete;
    OpenedFile &operator=(const OpenedFile &) = delete;

    int result() const { return result_; }
    int handle() const { return handle_; }
    int close()
    {
        const bool open = result_ >= 0;
        result_ = -EBADF;
        return open ? sbacc_close(handle_) : 0;
    }

private:
    int handle_ = -1;
    int result_ = -EBADF;
};

// False: there is no such file.
bool read_file(const std::string &name, std::string &bytes)
{
    OpenedFile file(name, "r");
    if (file.result() == -ENOENT) {
        return false;
    }
    if (file.result() < 0) {
        fail(name + " of the system backup area can't be opened", file.result());
    }
    const int size = sbacc_read_size(file.handle());
    if (size < 0) {
        fail("The size of " + name + " can't be read", size);
    }
    bytes.assign(static_cast<std::size_t>(size), '\0');
    const int got = size == 0 ? 0 : sbacc_read(bytes.data(), static_cast<unsigned>(size), 0, file.handle());
    if (got < 0) {
        fail(name + " of the system backup area can't be read", got);
    }
    if (got != size) {
        throw Stopped(exit_failed, name + " has " + std::to_string(got) + " of its " + std::to_string(size) +
                                       " bytes: 'kestactl verify' tells what mends it.");
    }
    return true;
}

void write_file(const std::string &name, const std::string &bytes)
{
    const int size = static_cast<int>(bytes.size());
    {
        OpenedFile file(name, "w");
        int result = file.result() < 0 ? file.result()
                                       : sbacc_write(bytes.data(), static_cast<unsigned>(size), 0, file.handle());
        result = result >= 0 && result != size ? -EIO : result;
        const int closed = file.close();
        if (result < 0 || closed < 0) {
            fail(name + " can't be written", result < 0 ? result : closed);
        }
    }
    OpenedFile file(name, "w");
    int result = file.result() < 0 ? file.result() : sbacc_write_size(static_cast<unsigned>(size), file.handle());
    const int closed = file.close();
    if (result < 0 || closed < 0) {
        fail("The size of " + name + " can't be recorded", result < 0 ? result : closed);
    }
}

void send_bytes(int fd, const void *bytes, std::size_t size)
{
    const auto *at = static_cast<const char *>(bytes);
    while (size > 0) {
        const ssize_t wrote = write(fd, at, size);
        if (wrote < 0 && errno == EINTR) {
            continue;
        }
        if (wrote <= 0) {
            throw Stopped(exit_failed, std::string("What was read can't be passed on: ") + strerror(errno) + ".");
        }
        at += wrote;
        size -= static_cast<std::size_t>(wrote);
    }
}

void send_part(int fd, const std::string &name, const std::string &bytes)
{
    const std::uint64_t sizes[] = {name.size(), bytes.size()};
    send_bytes(fd, sizes, sizeof(sizes));
    send_bytes(fd, name.data(), name.size());
    send_bytes(fd, bytes.data(), bytes.size());
}

void receive_bytes(int fd, void *bytes, std::size_t size)
{
    auto *at = static_cast<char *>(bytes);
    while (size > 0) {
        const ssize_t got = read(fd, at, size);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            throw Stopped(exit_failed, "The other platform's part ended before all was told.");
        }
        at += got;
        size -= static_cast<std::size_t>(got);
    }
}

std::string receive_text(int fd, std::uint64_t size)
{
    if (size > std::numeric_limits<int>::max()) {
        throw Stopped(exit_failed, "The other platform's part told a size that nothing has.");
    }
    std::string text(size, '\0');
    receive_bytes(fd, text.data(), text.size());
    return text;
}

constexpr const char *region_prefix = "nv/";
constexpr const char *file_prefix = "file/";

}  // namespace

bool PlatformState::is_empty() const
{
    return std::all_of(regions.begin(), regions.end(), [](const auto &region) { return is_zero(region.second); }) &&
           std::all_of(files.begin(), files.end(), [](const auto &file) { return file.second.empty(); });
}

PlatformState read_state()
{
    PlatformState state;
    for (unsigned region = 0; region < most_regions; ++region) {
        std::string bytes(region_size, '\0');
        const int result = transfer(false, region, bytes);
        if (result != 0 && region > image_region) {
            break;  // there are no more
        }
        if (result != 0) {
            fail("Region " + std::to_string(region) + " of NV memory can't be read", result);
        }
        state.regions[region] = bytes;
    }
    for (const std::string &name : file_names()) {
        std::string bytes;
        if (read_file(name, bytes)) {
            state.files[name] = bytes;
        }
    }
    return state;
}

void write_state(const PlatformState &state)
{
    for (const auto &[name, bytes] : state.files) {
        write_file(name, bytes);
    }
    for (const auto &[region, bytes] : state.regions) {
        std::string copy = bytes;
        if (const int result = transfer(true, region, copy); result != 0) {
            fail("Region " + std::to_string(region) + " of NV memory can't be written", result);
        }
    }
}

std::string holder_in(const PlatformState &state)
{
    const auto image = state.regions.find(image_region);
    unsigned count = 0;
    const KESTA_NV_ITEM *items = kesta_nv_items(&count);
    for (unsigned i = 0; i < count && image != state.regions.end(); ++i) {
        const bool is_lock = items[i].kind == KESTA_NV_KIND_COMMAND_LOCK || items[i].kind == KESTA_NV_KIND_INNER_LOCK;
        if (is_lock && items[i].offset >= 0 &&
            !is_zero(image->second.substr(static_cast<std::size_t>(items[i].offset), items[i].size))) {
            return items[i].name;
        }
    }
    return "";
}

void send(const PlatformState &state, int fd)
{
    for (const auto &[region, bytes] : state.regions) {
        send_part(fd, region_prefix + std::to_string(region), bytes);
    }
    for (const auto &[name, bytes] : state.files) {
        send_part(fd, file_prefix + name, bytes);
    }
    send_part(fd, "", "");
}

PlatformState receive(int fd)
{
    PlatformState state;
    for (;;) {
        std::uint64_t sizes[2];
        receive_bytes(fd, sizes, sizeof(sizes));
        const std::string name = receive_text(fd, sizes[0]);
        std::string bytes = receive_text(fd, sizes[1]);
        if (name.empty()) {
            return state;
        }
        if (name.starts_with(region_prefix)) {
            state.regions[static_cast<unsigned>(std::stoul(name.substr(strlen(region_prefix))))] = std::move(bytes);
        } else {
            state.files[name.substr(strlen(file_prefix))] = std::move(bytes);
        }
    }
}

}  // namespace platform_copy
