// What the four libraries owe to a program that has threads, forks, and cancels its threads.
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <set>

#include "clause.h"
#include "mc_logapi.h"
#include "nv_memory.h"
#include "sbacc.h"
#include "vrbapi.h"

namespace platform_check {
namespace {

constexpr const char *scratch = "kesta_platform_check";
constexpr const char *scratch_of_children = "kesta_platform_child";  // two writers of one file may meet

// Open when the program was started: not the platform's.
std::set<int> &inherited()
{
    static std::set<int> descriptors;
    return descriptors;
}

std::set<int> open_descriptors()
{
    std::set<int> descriptors;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        descriptors.insert(std::stoi(entry.path().filename()));
    }
    return descriptors;
}

// A call of each library. Whether the calls that have a result succeeded.
bool use_all(const char *name = scratch)
{
    std::string bytes = "as others do";
    int handle = -1;
    int close_flag = -1;
    uint8_t master = 0;
    _VRBAPIERRINFO error{};
    int extra = 0;
    MC_OutTrace("platform_check.cpp", __LINE__, 5, "[platform_check] all");
    if (write_nv(2048, bytes) != 0 || read_nv(2048, bytes.size()) != bytes ||
        vrbgetsanfwinfo(VRB_SANFWINFO_MASTER, &master, &error, &extra) != 0 ||
        sbacc_open(name, "w", &handle, &close_flag) != 0) {
        return false;
    }
    const int written = sbacc_write(bytes.data(), static_cast<unsigned>(bytes.size()), 0, handle);
    return sbacc_close(handle) == 0 && written == static_cast<int>(bytes.size());
}

// The library runs commands beside other threads: they must not inherit what the platform has open.
Outcome descriptors_are_closed_on_exec()
{
    (void)use_all();
    int handle = -1;
    int close_flag = -1;
    (void)sbacc_open(scratch, "r", &handle, &close_flag);
    Outcome outcome;
    for (const int fd : open_descriptors()) {
        const int flags = fcntl(fd, F_GETFD);
        if (inherited().count(fd) == 0 && flags >= 0 && (flags & FD_CLOEXEC) == 0) {
            outcome = "descriptor " + std::to_string(fd) + " stays open in commands that are run";
        }
    }
    (void)sbacc_close(handle);
    return outcome;
}

// What the program prints next would go into a file of the platform's.
Outcome standard_descriptors_stay_free()
{
    constexpr int standard = 3;
    for (int fd = 0; fd < standard; ++fd) {
        (void)close(fd);
    }
    (void)use_all();
    int handle = -1;
    int close_flag = -1;
    (void)sbacc_open(scratch, "r", &handle, &close_flag);
    Outcome outcome;
    for (int fd = 0; fd < standard; ++fd) {
        if (fcntl(fd, F_GETFD) >= 0) {
            outcome = "descriptor " + std::to_string(fd) + " is taken where the program has it closed";
        }
    }
    (void)sbacc_close(handle);
    return outcome;
}

void *use_for_ever(void *ended)
{
    while (!static_cast<std::atomic<bool> *>(ended)->load()) {
        (void)use_all();
        pthread_testcancel();  // a platform may have no cancellation point at all
    }
    return nullptr;
}

Outcome children_go_on()
{
    std::atomic<bool> ended{false};
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, use_for_ever, &ended) != 0) {
        return "no thread can be started";
    }
    bool went_on = true;
    for (int i = 0; i < 20 && went_on; ++i) {
        went_on = in_process([] {
            alarm(10);  // it would hang for ever
            return use_all(scratch_of_children);
        });
    }
    ended = true;
    (void)pthread_join(thread, nullptr);
    return went_on ? "" : "a child that is made beside a thread's call hangs or fails";
}

Outcome cancelled_threads_leave_nothing_held()
{
    constexpr unsigned longest_s = 15;
    alarm(longest_s);
    std::atomic<bool> ended{false};
    for (int i = 0; i < 20; ++i) {
        pthread_t thread{};
        if (pthread_create(&thread, nullptr, use_for_ever, &ended) != 0) {
            return "no thread can be started";
        }
        usleep(static_cast<useconds_t>(200 + i * 50));
        (void)pthread_cancel(thread);
        (void)pthread_join(thread, nullptr);
    }
    return use_all() ? "" : "calls fail once a thread was cancelled";
}

}  // namespace

void remember_inherited_descriptors() { inherited() = open_descriptors(); }

Clauses process_clauses()
{
    constexpr const char *library = "all";
    return {
        {library, "descriptors are closed in commands that are run", descriptors_are_closed_on_exec},
        {library, "descriptors 0, 1 and 2 are left to the program", standard_descriptors_stay_free},
        {library, "children made beside threads go on", children_go_on},
        {library, "a cancelled thread leaves nothing locked", cancelled_threads_leave_nothing_held},
    };
}

}  // namespace platform_check
