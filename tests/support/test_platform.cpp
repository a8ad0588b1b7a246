#include "test_platform.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <sys/times.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <set>

#include "access_mode.h"
#include "controller_state.h"
#include "kesta/command_lock.h"
#include "kesta/versions.h"
#include "mc_logapi.h"
#include "repair_state.h"
#include "sanfwctl.h"
#include "sbacc.h"
#include "tracked_allocation.h"
#include "vpd_state.h"
#include "vrbapi.h"

extern "C" int __real_system(const char *command);

namespace test {
namespace {

std::unique_ptr<Platform> current = std::make_unique<Platform>();
std::recursive_mutex mutex;

struct OpenHandle {
    std::string name;
    bool writes;
};
std::map<int, OpenHandle> handles;
int next_handle = 100;
std::set<FILE *> fake_pipes;
std::map<FILE *, int> pipe_status;

// A source is named alike in whichever folder it stands: "../common/NAME.cpp", or a header's name.
bool is_trace_path(const std::string &file)
{
    const std::string folder = "../common/";
    return file.rfind(folder, 0) == 0 && file.size() > folder.size() && file.find('/', folder.size()) == file.npos;
}

}  // namespace

Platform &platform() { return *current; }

void reset(int own_number)
{
    current = std::make_unique<Platform>();
    handles.clear();
    kesta::reset_controller_state();
    controller_state.own_number = own_number;
    kesta::reset_access_mode();
    kesta::reset_tracked_allocation();
    kesta::reset_repair_state();
    kesta::reset_vpd_state();
    kestal_allreset_lockinfo();
    kestal_set_version_file_sync();
    unsetenv("KESTA_NOHDD_STATUS");
    unsetenv("KESTA_CPMODE_STATUS");
}

int run_shell(const std::string &command) { return __real_system(command.c_str()); }

int open_descriptors()
{
    int count = 0;
    DIR *folder = opendir("/proc/self/fd");
    while (readdir(folder)) {
        ++count;
    }
    closedir(folder);
    return count - 3;  // ".", "..", and the folder itself
}

bool Platform::meets_fault(const std::string &kind, const std::string &call)
{
    if (before_call) {
        before_call(call);
    }
    const std::lock_guard guard(mutex);
    calls.push_back(call);
    ++calls_met;
    bool fails = fail_at > 0 && (calls_met == fail_at || (fail_from_then_on && calls_met > fail_at));
    if (const auto rule = kind_faults.find(kind); rule != kind_faults.end()) {
        auto &[successes, times] = rule->second;
        if (successes > 0) {
            --successes;
        } else if (times > 0) {
            --times;
            fails = true;
        }
    }
    fault_met = fault_met || fails;
    return fails;
}

bool Platform::traced(int level, const std::string &text) const
{
    for (const Trace &trace : traces) {
        if (trace.level == level && trace.text == text) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> Platform::texts(int level) const
{
    std::vector<std::string> found;
    for (const Trace &trace : traces) {
        if (trace.level == level) {
            found.push_back(trace.text);
        }
    }
    return found;
}

int Platform::count(const std::string &text) const
{
    int found = 0;
    for (const Trace &trace : traces) {
        found += trace.text.find(text) != std::string::npos;
    }
    return found;
}

int Platform::count_now(const std::string &text) const
{
    const std::lock_guard guard(mutex);
    return count(text);
}

std::vector<std::string> Platform::calls_of(const std::string &kind) const
{
    std::vector<std::string> found;
    for (const std::string &call : calls) {
        if (call.rfind(kind, 0) == 0) {
            found.push_back(call);
        }
    }
    return found;
}

std::int32_t Platform::int_at(std::size_t offset) const
{
    std::int32_t value;
    memcpy(&value, nv.data() + offset, sizeof(value));
    return value;
}

void Platform::set_int(std::size_t offset, std::int32_t value) { memcpy(nv.data() + offset, &value, sizeof(value)); }

std::string Platform::text_at(std::size_t offset, std::size_t size) const
{
    const char *from = reinterpret_cast<const char *>(nv.data()) + offset;
    return {from, strnlen(from, size)};
}

void Platform::set_text(std::size_t offset, const std::string &text, std::size_t size)
{
    memset(nv.data() + offset, 0, size);
    memcpy(nv.data() + offset, text.data(), std::min(text.size(), size));
}

namespace {

std::string call_text(std::initializer_list<std::string> words)
{
    std::string text;
    for (const std::string &word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

int nv_transfer(const char *kind, int handle, const cpfw_nv_region_t *region, const cpfw_nv_access_t *access, int count,
                bool writes)
{
    EXPECT_EQ(handle, -1);
    EXPECT_EQ(count, 1);
    Platform &p = platform();
    const bool is_image = *region == 2;
    const std::string call = call_text({is_image ? kind : std::string(kind) + "_region" + std::to_string(*region),
                                        std::to_string(access->offset), std::to_string(access->length)});
    if (p.meets_fault(kind, call)) {
        return -p.fault_errno;
    }
    if (access->offset + access->length > p.nv.size()) {
        ADD_FAILURE() << "transfer outside the region: " << call;
        return -ERANGE;
    }
    if (is_image) {
        p.nv.transfer(writes, access->offset, access->buffer, access->length);
    } else {
        std::string &bytes = p.other_regions[*region];
        bytes.resize(p.nv.size());
        char *at = bytes.data() + access->offset;
        writes ? memcpy(at, access->buffer, access->length) : memcpy(access->buffer, at, access->length);
    }
    if (p.after_call) {
        p.after_call(call);
    }
    return 0;
}

}  // namespace
}  // namespace test

using test::platform;
using test::Platform;

// ---------------------------------------------------------------- mc_logapi

// Weak: programs may have a trace log of their own, as kestactl has.
__attribute__((weak)) void MC_OutTrace(const char *file, int line, int level, const char *format, ...)
{
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    EXPECT_GT(line, 0);
    EXPECT_PRED1(test::is_trace_path, std::string(file));
    const std::lock_guard guard(test::mutex);
    platform().traces.push_back({level, text, file});
    if (platform().after_trace) {
        platform().after_trace(text);
    }
    errno = 999;  // a trace may change errno: messages must not print what it left
}

const char *MC_FilePathDel(const char *path) { return path; }

// ---------------------------------------------------------------- sanfwctl

int zKTsanfwctl_read_nv(int handle, cpfw_nv_region_t *region, cpfw_nv_access_t *access, int count)
{
    return test::nv_transfer("nv_read", handle, region, access, count, false);
}

int zKTsanfwctl_write_nv(int handle, cpfw_nv_region_t *region, cpfw_nv_access_t *access, int count)
{
    return test::nv_transfer("nv_write", handle, region, access, count, true);
}

int zKTsanfwctl_get_status(int kind, sanfw_getstatus_out *out)
{
    EXPECT_EQ(kind, 0);
    Platform &p = platform();
    if (p.meets_fault("status", "status")) {
        return -p.fault_errno;
    }
    out->cont0_sts = p.cont_sts[0];
    out->cont1_sts = p.cont_sts[1];
    out->card0_sts = p.card_sts[0];
    out->card1_sts = p.card_sts[1];
    return 0;
}

int zKTsanfwctl_get_status_ex(int kind, sanfw_getstatus_ex_out *out)
{
    EXPECT_EQ(kind, 1);
    Platform &p = platform();
    if (p.meets_fault("status", "status_ex")) {
        return -p.fault_errno;
    }
    memcpy(out->cont_sts, p.cont_sts, 4);
    memcpy(out->card_sts, p.card_sts, 4);
    return 0;
}

// ---------------------------------------------------------------- sbacc

int sbacc_open(const char *name, const char *mode, int *handle, int *close_flag)
{
    Platform &p = platform();
    EXPECT_EQ(*close_flag, 1) << "the close flag is set before the first open";
    if (p.meets_fault("sb_open", test::call_text({"sb_open", name, mode}))) {
        return -p.fault_errno;
    }
    const std::lock_guard guard(test::mutex);
    const bool writes = strcmp(mode, "w") == 0;
    if (!writes && !p.sysback.contains(name)) {
        return -ENOENT;
    }
    *handle = test::next_handle++;
    test::handles[*handle] = {name, writes};
    *close_flag = p.close_flag;
    ++p.open_handles;
    return 0;
}

int sbacc_read(void *buffer, unsigned int size, unsigned int offset, int handle)
{
    Platform &p = platform();
    if (p.meets_fault("sb_read", test::call_text({"sb_read", std::to_string(size)}))) {
        return -p.fault_errno;
    }
    const std::lock_guard guard(test::mutex);
    EXPECT_EQ(offset, 0u);
    const std::string &bytes = p.sysback.at(test::handles.at(handle).name).bytes;
    const std::size_t count = std::min<std::size_t>(size, bytes.size()) - static_cast<std::size_t>(p.short_by);
    memcpy(buffer, bytes.data(), count);
    return static_cast<int>(count);
}

int sbacc_write(const void *buffer, unsigned int size, unsigned int offset, int handle)
{
    Platform &p = platform();
    if (p.meets_fault("sb_write", test::call_text({"sb_write", std::to_string(size)}))) {
        return -p.fault_errno;
    }
    const std::lock_guard guard(test::mutex);
    EXPECT_EQ(offset, 0u);
    EXPECT_TRUE(test::handles.at(handle).writes);
    const std::size_t count = size - static_cast<std::size_t>(p.short_by);
    p.sysback[test::handles.at(handle).name] = {std::string(static_cast<const char *>(buffer), count), -1};
    return static_cast<int>(count);
}

int sbacc_read_size(int handle)
{
    Platform &p = platform();
    if (p.meets_fault("sb_size", "sb_size")) {
        return -p.fault_errno;
    }
    const std::lock_guard guard(test::mutex);
    if (p.read_size_result < 0) {
        return p.read_size_result;
    }
    const test::StoredFile &file = p.sysback.at(test::handles.at(handle).name);
    return file.recorded_size >= 0 ? file.recorded_size : static_cast<int>(file.bytes.size());
}

int sbacc_write_size(unsigned int size, int handle)
{
    Platform &p = platform();
    if (p.meets_fault("sb_write_size", test::call_text({"sb_write_size", std::to_string(size)}))) {
        return -p.fault_errno;
    }
    const std::lock_guard guard(test::mutex);
    p.sysback.at(test::handles.at(handle).name).recorded_size = static_cast<int>(size);
    return 0;
}

int sbacc_close(int handle)
{
    Platform &p = platform();
    {
        const std::lock_guard guard(test::mutex);
        EXPECT_EQ(test::handles.erase(handle), 1u) << "closed twice, or never opened";
        --p.open_handles;
    }
    // A close that is made to fail still closes.
    return p.meets_fault("sb_close", "sb_close") ? -p.fault_errno : p.close_result;
}

// ---------------------------------------------------------------- vrbapi

int vrbapi_setint_to_file(const char *path, int value, _VRBAPIERRINFO *error)
{
    EXPECT_EQ(error->s_errno, 0);
    Platform &p = platform();
    if (p.meets_fault("vrb_set", test::call_text({"vrb_set", path, std::to_string(value)}))) {
        snprintf(error->func_name, sizeof(error->func_name), "open");
        error->s_errno = p.fault_errno;
        return -1;
    }
    const std::lock_guard guard(test::mutex);
    p.integer_files[path] = value;
    return 0;
}

int vrbapi_getint_from_file(const char *path, unsigned char flag, int lowest, int highest, int *value,
                            _VRBAPIERRINFO *error)
{
    EXPECT_EQ(flag, 1);
    Platform &p = platform();
    const bool fails = p.meets_fault("vrb_get", test::call_text({"vrb_get", path}));
    const auto file = p.integer_files.find(path);
    if (fails || file == p.integer_files.end() || file->second < lowest || file->second > highest) {
        memcpy(error->func_name, "sixteen_letters!", 16);  // full: no terminator
        error->s_errno = p.fault_errno;
        return -2;
    }
    *value = file->second;
    return 0;
}

int vrbgetnetconfig(vrb_netconfig_t records[2])
{
    Platform &p = platform();
    if (p.meets_fault("vrb_net", "vrb_net")) {
        errno = p.fault_errno;
        return -3;
    }
    records[0] = {p.own_record, {htonl(0x0a000001)}};  // 10.0.0.1
    records[1] = {1 - p.own_record, {htonl(0x0a000002)}};
    return 0;
}

int vrbgetsanfwinfo(int kind, uint8_t *result, _VRBAPIERRINFO *error, int *extra)
{
    EXPECT_EQ(kind, 1);
    EXPECT_EQ(*result, 255);
    Platform &p = platform();
    if (p.meets_fault("vrb_info", "vrb_info")) {
        snprintf(error->func_name, sizeof(error->func_name), "ask");
        error->s_errno = p.fault_errno;
        return -3;
    }
    *result = static_cast<uint8_t>(p.master);
    *extra = 77;
    return 0;
}

// ---------------------------------------------------------------- operating system
// The linker sends the library's calls here (--wrap), and __real_ names the service itself.

extern "C" {

int __wrap_usleep(useconds_t us)
{
    Platform &p = platform();
    if (p.before_call) {
        p.before_call("usleep " + std::to_string(us));
    }
    const std::lock_guard guard(test::mutex);
    p.calls.push_back("usleep " + std::to_string(us));
    p.clock_us += p.clock_stands ? 0 : us;
    return 0;
}

int __wrap_gettimeofday(struct timeval *now, void *)
{
    now->tv_sec = platform().wall_seconds;
    now->tv_usec = 0;
    return 0;
}

clock_t __wrap_times(struct tms *)
{
    const std::lock_guard guard(test::mutex);
    return static_cast<clock_t>(platform().clock_us / 1'000'000 * sysconf(_SC_CLK_TCK));
}

FILE *__real_popen(const char *command, const char *mode);
FILE *__wrap_popen(const char *command, const char *mode)
{
    Platform &p = platform();
    EXPECT_STREQ(mode, "r");
    if (p.meets_fault("popen", test::call_text({"popen", command}))) {
        errno = p.fault_errno;
        return nullptr;
    }
    const std::lock_guard guard(test::mutex);
    ++p.open_pipes;
    const auto known = p.commands.find(command);
    if (known == p.commands.end()) {
        return __real_popen(command, mode);
    }
    FILE *stream = tmpfile();
    fwrite(known->second.output.data(), 1, known->second.output.size(), stream);
    rewind(stream);
    test::fake_pipes.insert(stream);
    test::pipe_status[stream] = known->second.status;
    return stream;
}

int __real_pclose(FILE *stream);
int __wrap_pclose(FILE *stream)
{
    Platform &p = platform();
    const bool fails = p.meets_fault("pclose", "pclose");
    std::unique_lock guard(test::mutex);
    --p.open_pipes;
    int status;
    if (test::fake_pipes.erase(stream) == 1) {
        status = test::pipe_status[stream];
        fclose(stream);
    } else {
        guard.unlock();  // it waits for the command, which may wait for the test
        status = __real_pclose(stream);
    }
    return fails ? -1 : status;
}

int __wrap_system(const char *command)
{
    Platform &p = platform();
    const bool fails = p.meets_fault("system", test::call_text({"system", command}));
    {
        const std::lock_guard guard(test::mutex);
        p.system_commands.push_back(command);
    }
    if (fails) {
        errno = p.fault_errno;
        return -1;
    }
    if (p.run_system) {
        return __real_system(command);
    }
    const std::lock_guard guard(test::mutex);
    if (p.system_statuses.empty()) {
        return 0;
    }
    const int status = p.system_statuses.front();
    if (p.system_statuses.size() > 1) {
        p.system_statuses.erase(p.system_statuses.begin());
    }
    return status;
}

// Services that can be made to fail, and are called for real otherwise. Only the paths of the
// appliance count as calls.
bool on_appliance(const char *path)
{
    return strstr(path, "kesta_sys") != nullptr && strstr(path, ".innerlock") == nullptr;
}

int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    Platform &p = platform();
    if (on_appliance(path)) {
        EXPECT_TRUE((flags & O_CLOEXEC) != 0) << path;
        if (p.meets_fault("open", test::call_text({"open", path}))) {
            errno = p.fault_errno;
            return -1;
        }
    }
    return __real_open(path, flags, mode);
}

ssize_t __real_write(int fd, const void *data, size_t size);
ssize_t __wrap_write(int fd, const void *data, size_t size)
{
    Platform &p = platform();
    if (fd > 2 && p.meets_fault("write", test::call_text({"write", std::to_string(size)}))) {
        errno = p.fault_errno;
        return p.short_by > 0 ? __real_write(fd, data, size - static_cast<size_t>(p.short_by)) : -1;
    }
    return __real_write(fd, data, size);
}

ssize_t __real_read(int fd, void *data, size_t size);
ssize_t __wrap_read(int fd, void *data, size_t size)
{
    Platform &p = platform();
    if (p.meets_fault("read", test::call_text({"read", std::to_string(size)}))) {
        errno = p.fault_errno;
        return -1;
    }
    return __real_read(fd, data, size);
}

int __real_fsync(int fd);
int __wrap_fsync(int fd)
{
    Platform &p = platform();
    if (p.meets_fault("fsync", "fsync")) {
        errno = p.fault_errno;
        return -1;
    }
    return __real_fsync(fd);
}

int __real_rename(const char *from, const char *to);
int __wrap_rename(const char *from, const char *to)
{
    Platform &p = platform();
    if (p.meets_fault("rename", test::call_text({"rename", from, to}))) {
        errno = p.fault_errno;
        return -1;
    }
    return __real_rename(from, to);
}

int __real_chmod(const char *path, mode_t mode);
int __wrap_chmod(const char *path, mode_t mode)
{
    Platform &p = platform();
    char octal[16];
    snprintf(octal, sizeof(octal), "%o", mode);
    if (p.meets_fault("chmod", test::call_text({"chmod", path, octal}))) {
        errno = p.fault_errno;
        return -1;
    }
    return __real_chmod(path, mode);
}

FILE *__real_fopen(const char *path, const char *mode);
FILE *__wrap_fopen(const char *path, const char *mode)
{
    Platform &p = platform();
    if (on_appliance(path)) {
        EXPECT_NE(strchr(mode, 'e'), nullptr) << path;
        if (p.meets_fault("fopen", test::call_text({"fopen", path}))) {
            errno = p.fault_errno;
            return nullptr;
        }
    }
    return __real_fopen(path, mode);
}

pid_t __real_waitpid(pid_t pid, int *status, int options);
pid_t __wrap_waitpid(pid_t pid, int *status, int options)
{
    Platform &p = platform();
    if (p.meets_fault("waitpid", "waitpid")) {
        errno = p.fault_errno;
        return -1;
    }
    return __real_waitpid(pid, status, options);
}

// A rule of its own: the sweeps are of the platform's and the system's calls.
bool thread_call_fails(const char *call)
{
    Platform &p = platform();
    {
        const std::lock_guard guard(test::mutex);
        if (!p.kind_faults.contains(call)) {
            return false;
        }
    }
    return p.meets_fault(call, call);
}

int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *), void *argument);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *), void *argument)
{
    return thread_call_fails("pthread_create") ? platform().fault_errno
                                               : __real_pthread_create(thread, attributes, body, argument);
}

int __real_pthread_cancel(pthread_t thread);
int __wrap_pthread_cancel(pthread_t thread)
{
    const int result = __real_pthread_cancel(thread);
    return thread_call_fails("pthread_cancel") ? platform().fault_errno : result;
}

int __real_pthread_detach(pthread_t thread);
int __wrap_pthread_detach(pthread_t thread)
{
    const int result = __real_pthread_detach(thread);
    return thread_call_fails("pthread_detach") ? platform().fault_errno : result;
}

int __real_lockf(int fd, int command, off_t length);
int __wrap_lockf(int fd, int command, off_t length)
{
    Platform &p = platform();
    bool has_rule;
    {
        const std::lock_guard guard(test::mutex);
        has_rule = p.kind_faults.contains("lockf");
    }
    if (has_rule && p.meets_fault("lockf", "lockf")) {
        errno = p.fault_errno;
        return -1;
    }
    return __real_lockf(fd, command, length);
}

// Closes in any case: a close that failed has closed.
int __real_close(int fd);
int __wrap_close(int fd)
{
    Platform &p = platform();
    bool has_rule;
    {
        const std::lock_guard guard(test::mutex);
        has_rule = p.kind_faults.contains("close");
    }
    const int result = __real_close(fd);
    if (has_rule && p.meets_fault("close", "close")) {
        errno = p.fault_errno;
        return -1;
    }
    return result;
}

void *__real_kestal_calloc_debug(int count, int size, const char *file, int line, int debug);
void *__wrap_kestal_calloc_debug(int count, int size, const char *file, int line, int debug)
{
    EXPECT_PRED1(test::is_trace_path, std::string(file));
    EXPECT_EQ(debug, 0);
    Platform &p = platform();
    if (p.meets_fault("alloc", test::call_text({"alloc", std::to_string(count * size)}))) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_kestal_calloc_debug(count, size, file, line, debug);
}

void *__real_kestal_malloc_debug(int size, const char *file, int line, int debug);
void *__wrap_kestal_malloc_debug(int size, const char *file, int line, int debug)
{
    EXPECT_PRED1(test::is_trace_path, std::string(file));
    EXPECT_EQ(debug, 0);
    Platform &p = platform();
    if (p.meets_fault("alloc", test::call_text({"alloc", std::to_string(size)}))) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_kestal_malloc_debug(size, file, line, debug);
}

void *__real_kestal_realloc_debug(char *ptr, int size, const char *file, int line, int debug);
void *__wrap_kestal_realloc_debug(char *ptr, int size, const char *file, int line, int debug)
{
    Platform &p = platform();
    if (p.meets_fault("alloc", test::call_text({"realloc", std::to_string(size)}))) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_kestal_realloc_debug(ptr, size, file, line, debug);
}
}
