/* Loaded before a program: a wait passes at once, and moves the process-times clock on. */
#define _GNU_SOURCE
#include <sys/times.h>
#include <unistd.h>

static long long clock_us = 1000000000;

__attribute__((visibility("default"))) int usleep(useconds_t us)
{
    __atomic_fetch_add(&clock_us, us, __ATOMIC_RELAXED);
    return 0;
}

__attribute__((visibility("default"))) clock_t times(struct tms *buffer)
{
    (void)buffer;
    return (clock_t)(__atomic_load_n(&clock_us, __ATOMIC_RELAXED) / 1000000 * sysconf(_SC_CLK_TCK));
}
