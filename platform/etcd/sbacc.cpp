#include "sbacc.h"

#include <errno.h>
#include <limits.h>
#include <string.h>

#include <functional>
#include <optional>

#include "backup_area.h"
#include "call_checks.h"
#include "cluster.h"
#include "complaint.h"
#include "faults.h"
#include "guarded.h"
#include "open_files.h"
#include "settings.h"

#define PLATFORM_API __attribute__((visibility("default")))

namespace {

using namespace etcd;
using namespace platform;

// All that the library has.
struct Backup {
    Cluster cluster{StoreOf::backup_area};
    std::optional<BackupArea> area;
    OpenFiles files;
    Complaint complaint{"the system backup area"};

    // Makes the area ready: 0 or a negative errno.
    int prepare(bool writes)
    {
        if (const int error = cluster.prepare(writes); error != 0) {
            return error;
        }
        if (!area) {
            BackupSettings given;
            given.prefix = cluster.prefix();
            given.chunk_bytes = static_cast<std::uint32_t>(settings().chunk_bytes);
            given.lease_s = settings().upload_lease_s;
            given.limit_bytes = static_cast<std::uint64_t>(settings().sysback_limit_bytes);
            given.quota_share = static_cast<unsigned>(settings().sysback_quota_share);
            area.emplace(cluster.client(), std::move(given), [] { Guarded<Backup>::gate.let_pass(); });
        }
        return 0;
    }

    void forget_in_child()
    {
        cluster.forget_connection();
        if (area) {
            area->unpublished().clear();
        }
    }
};

__attribute__((constructor)) void handle_fork() { Guarded<Backup>::handle_fork(); }

// Runs a body in the gate.
int in_gate(const std::function<int(Backup &)> &body) { return Guarded<Backup>::run(body); }

int open_to_read(Backup &all, const char *name)
{
    auto reader = std::make_unique<BackupReader>();
    if (const int error = all.prepare(false); error != 0) {
        return error;
    }
    const int error = reader->open(*all.area, name);
    return error != 0 ? error : all.files.add(std::move(reader), nullptr);
}

int open_to_write(Backup &all, const char *name)
{
    const int error = all.prepare(true);
    return error != 0 ? error : all.files.add(nullptr, std::make_unique<BackupWriter>(name));
}

int write_some(Backup &all, int handle, std::string_view bytes, unsigned offset, const Fault &fault)
{
    OpenFile *file = all.files.find(handle);
    if (!file || !file->writer) {
        return -EINVAL;
    }
    if (fault.action == FaultAction::fail) {
        file->writer->break_off(-fault.value);
        return -fault.value;
    }
    const unsigned size = limited(static_cast<unsigned>(bytes.size()), fault);
    const int error = file->writer->write(*all.area, bytes.substr(0, size), offset);
    if (error == 0 && size < bytes.size()) {
        file->writer->break_off(-EIO);
    }
    return error != 0 ? error : static_cast<int>(size);
}

int close_file(Backup &all, int handle, int failed)
{
    OpenFile *file = all.files.find(handle);
    if (!file) {
        return -EINVAL;
    }
    int result = failed;
    if (file->writer && file->writer->written()) {
        if (failed != 0) {
            file->writer->break_off(failed);
        }
        result = file->writer->publish(*all.area);
    }
    OpenFiles::remove(*file);
    return result;
}

}  // namespace

PLATFORM_API int sbacc_open(const char *name, const char *mode, int *handle, int *close_flag)
{
    if (!is_backup_name(name) || !is_open_mode(mode) || !handle || !close_flag) {
        return -EINVAL;
    }
    const Fault fault = meet_fault("sb_open");
    if (fault.action == FaultAction::fail) {
        return -fault.value;
    }
    const int result =
        in_gate([&](Backup &all) { return mode[0] == 'r' ? open_to_read(all, name) : open_to_write(all, name); });
    if (result < 0) {
        return result;
    }
    *handle = result;
    *close_flag = fault.action == FaultAction::close_flag ? 0 : 1;
    return 0;
}

PLATFORM_API int sbacc_read(void *buffer, unsigned int size, unsigned int offset, int handle)
{
    const Fault fault = meet_fault("sb_read");
    if (fault.action == FaultAction::fail) {
        return -fault.value;
    }
    if (!buffer || size > INT_MAX) {
        return -EINVAL;
    }
    return in_gate([&](Backup &all) {
        OpenFile *file = all.files.find(handle);
        if (!file || !file->reader) {
            return -EINVAL;
        }
        return static_cast<int>(
            file->reader->read(*all.area, static_cast<char *>(buffer), limited(size, fault), offset));
    });
}

PLATFORM_API int sbacc_write(const void *buffer, unsigned int size, unsigned int offset, int handle)
{
    const Fault fault = meet_fault("sb_write");
    if (!buffer || size > INT_MAX || offset > INT_MAX - size) {
        return -EINVAL;
    }
    return in_gate([&](Backup &all) {
        return write_some(all, handle, {static_cast<const char *>(buffer), size}, offset, fault);
    });
}

PLATFORM_API int sbacc_read_size(int handle)
{
    if (const int failed = failure_of("sb_size"); failed != 0) {
        return failed;
    }
    return in_gate([&](Backup &all) {
        OpenFile *file = all.files.find(handle);
        return file && file->reader ? static_cast<int>(file->reader->size()) : -EINVAL;
    });
}

PLATFORM_API int sbacc_write_size(unsigned int size, int handle)
{
    if (const int failed = failure_of("sb_write_size"); failed != 0) {
        return failed;
    }
    return in_gate([&](Backup &all) {
        OpenFile *file = all.files.find(handle);
        if (!file || !file->writer || file->writer->written() || size > INT_MAX) {
            return -EINVAL;
        }
        return all.area->record_size(file->writer->name(), size);
    });
}

PLATFORM_API int sbacc_close(int handle)
{
    const int failed = failure_of("sb_close");
    return in_gate([&](Backup &all) { return close_file(all, handle, failed); });
}
