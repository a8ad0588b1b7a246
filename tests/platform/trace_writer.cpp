// Writes traces, for the tests of the trace library: trace_writer THREADS LINES LEVEL TEXT
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

#include <thread>
#include <vector>

#include "mc_logapi.h"

int main(int argc, char **argv)
{
    if (argc != 5) {
        return 2;
    }
    const int lines = atoi(argv[2]);
    const int level = atoi(argv[3]);
    bool errno_kept = true;
    std::vector<std::thread> threads;
    for (int i = 0; i < atoi(argv[1]); ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < lines; ++n) {
                errno = 42;
                MC_OutTrace("../common/some_file.cpp", 17, level, "%s %d", argv[4], n);
                errno_kept = errno_kept && errno == 42;
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    return errno_kept ? 0 : 1;
}
