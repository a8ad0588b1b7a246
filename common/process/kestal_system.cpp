#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "child_process.h"
#include "command_environment.h"
#include "formed_text.h"
#include "kesta/alloc.h"
#include "kesta/process.h"
#include "ownership.h"
#include "trace.h"

using kesta::system_mutex;

namespace {

constexpr unsigned poll_us = 100000;
constexpr std::size_t variable_size = 64;  // name, "=" and value are cut at 63 characters

class EnvironmentBlock {
public:
    EnvironmentBlock() = default;
    ~EnvironmentBlock() { kestal_free_envblk(block_); }
    EnvironmentBlock(const EnvironmentBlock &) = delete;
    EnvironmentBlock &operator=(const EnvironmentBlock &) = delete;

    char **out() { return &block_; }
    char *get() const { return block_; }

private:
    char *block_ = nullptr;
};

int allocate_block(char **block, const char *event_variable, const char *status_variable)
{
    char *copy = blkenvalloc();
    if (!copy) {
        SYSTEM_FAILURE(error, 1, "[alloc_envblk] blkenvalloc ERROR errno=%d", error);
        return KESTA_ERR;
    }
    const std::size_t size =
        strlen(event_variable) + 1 + strlen(status_variable) + 1 + static_cast<std::size_t>(blksize(copy));
    *block = static_cast<char *>(kestal_malloc_debug(static_cast<int>(size), __FILE__, __LINE__, 0));
    if (!*block) {
        // The copy is not released here, which leaks it: who follows allocations in the log finds no line of FREE
        // between the two failures, and takes one for a second error.
        SYSTEM_FAILURE(error, 1, "[alloc_envblk] malloc ERROR errno=%d", error);
        return KESTA_ERR;
    }
    blkcpy(*block, copy);
    blkstrcat(*block, event_variable);
    blkstrcat(*block, status_variable);
    blkenvfree(copy);
    return KESTA_OK;
}

// Polls without limit: a child may run as long as it likes.
int await_child(pid_t pid, int *wait_status)
{
    for (;;) {
        const pid_t reaped = waitpid(pid, wait_status, WNOHANG);
        if (reaped > 0) {
            return KESTA_OK;
        }
        if (reaped < 0) {
            SYSTEM_FAILURE(error, 1, "[system] waitpid(%d) error. errno=%d", pid, error);
            return KESTA_ERR;
        }
        usleep(poll_us);
    }
}

}  // namespace

int kestal_alloc_envblk(char **block, const char *event, const char *platform_status)
{
    if (!block) {
        FAILURE(ARGUMENT, 0, 1, "[alloc_envblk] Argument ERROR(block=NULL)");
        return KESTA_ERR_ARGUMENT;
    }
    kesta::settle_command_environment();
    // A null text reads as "(null)".
    char event_variable[variable_size];
    char status_variable[variable_size];
    snprintf(event_variable, sizeof(event_variable), "KESTA_EVENT=%s", kesta::or_null(event));
    snprintf(status_variable, sizeof(status_variable), "KESTA_VRBGETSTAT=%s", kesta::or_null(platform_status));
    return allocate_block(block, event_variable, status_variable);
}

void kestal_free_envblk(char *block) { kestal_free_debug(block, __FILE__, __LINE__, 0); }

int kestal_system(const char *command, const char *event, const char *platform_status, int *wait_status)
{
    if (!command || !wait_status) {
        FAILURE(ARGUMENT, 0, 1, "[system] Argument ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    EnvironmentBlock block;
    if (kestal_alloc_envblk(block.out(), event, platform_status) != KESTA_OK) {
        return KESTA_ERR;
    }
    TRACE(4, " >>>>> args(%s) starting...", command);
    pid_t pid = -1;
    if (prcfork(command, block.get(), &pid) != 0) {
        SYSTEM_FAILURE(error, 1, "[system] prcfork_siginit END errno=%d", error);
        return KESTA_ERR;
    }
    return await_child(pid, wait_status);
}

int kestal_exec_cmd_by_system(const char *command)
{
    if (!command) {
        FAILURE(ARGUMENT, 0, 1, "[exec_cmd_by_system] Argument ERROR(command=NULL)");
        return KESTA_ERR_ARGUMENT;
    }
    int result;
    {
        kesta::MutexGuard guard(system_mutex);
        kesta::settle_command_environment();
        result = system(command);
    }
    const unsigned status = static_cast<unsigned>(result);
    if ((status & 0xffU) != 0) {
        FAILURE(COMMAND, result, 1, "[exec_cmd_by_system] Failed to exec cmd=%s. result=%d", command, result);
        return KESTA_ERR;
    }
    return static_cast<int>(status >> 8 & 0xffU);
}
