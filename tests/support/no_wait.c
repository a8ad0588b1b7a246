/* Loaded before a program: its waits pass at once, and no time passes meanwhile. */
#define _GNU_SOURCE
#include <sys/times.h>
#include <unistd.h>

__attribute__((visibility("default"))) int usleep(useconds_t us)
{
    (void)us;
    return 0;
}

__attribute__((visibility("default"))) clock_t times(struct tms *buffer)
{
    (void)buffer;
    return 100000;
}
