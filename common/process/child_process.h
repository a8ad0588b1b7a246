// Environment blocks and child processes. Not exported.
//
// A block holds NAME=value strings, each ended by NUL, one after the other, with one NUL more after
// the last. Its size is the offset of the first two adjacent NULs plus 2.
#pragma once

#include <sys/types.h>

namespace kesta {

// A copy of the process environment, or null. Released with blkenvfree.
char *blkenvalloc(void);
void blkenvfree(char *block);

int blksize(const char *block);                      // bytes, both final NULs included
void blkcpy(char *destination, const char *source);  // copies blksize bytes
void blkstrcat(char *block, const char *text);       // there must be room
int blkstrnum(const char *block);                    // number of strings
char *blkstrhead(char *block);                       // first string; null if empty
char *blkstrnext(char *string);                      // the string after; null at the end

// Closes the calling process's descriptors above 2.
void fdclose(void);

// Starts "/bin/sh -c command" with the block as its environment, or with the caller's if block is
// null. Returns 0 with the pid, or -1 with errno.
int prcfork(const char *command, char *block, pid_t *pid);

// Stops a child: SIGTERM, then SIGKILL after 0.4 s. Returns 0 if it was reaped.
int prckill(pid_t pid);
}  // namespace kesta

using kesta::blkcpy;
using kesta::blkenvalloc;
using kesta::blkenvfree;
using kesta::blksize;
using kesta::blkstrcat;
using kesta::blkstrhead;
using kesta::blkstrnext;
using kesta::blkstrnum;
using kesta::fdclose;
using kesta::prcfork;
using kesta::prckill;
