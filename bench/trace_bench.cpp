// A filtered trace beside an empty variadic call, and a written one beside its bare steps.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>

#include "empty_call.h"
#include "mc_logapi.h"

namespace {

constexpr int written_level = 1;
constexpr int filtered_level = 5;
constexpr const char *raw_file = "/tmp/raw-trace.log";

void library_filtered(benchmark::State &state)
{
    for (auto _ : state) {
        MC_OutTrace(__FILE__, __LINE__, filtered_level, "[bench] value=%d", 1);
    }
}
BENCHMARK(library_filtered);

void raw_empty_call(benchmark::State &state)
{
    for (auto _ : state) {
        empty_call(__FILE__, __LINE__, filtered_level, "[bench] value=%d", 1);
    }
}
BENCHMARK(raw_empty_call);

void library_written(benchmark::State &state)
{
    for (auto _ : state) {
        MC_OutTrace(__FILE__, __LINE__, written_level, "[bench] value=%d name=%s", 1, "kesta");
    }
}
BENCHMARK(library_written);

// The same line to a file of the same kind: time stamp, one snprintf, one write.
void raw_line(benchmark::State &state)
{
    const int fd = open(raw_file, O_WRONLY | O_APPEND | O_CREAT | O_TRUNC | O_CLOEXEC, 0640);
    const int pid = getpid();
    const int thread = gettid();
    for (auto _ : state) {
        struct timespec now;
        struct tm utc;
        char line[2048];
        clock_gettime(CLOCK_REALTIME, &now);
        gmtime_r(&now.tv_sec, &utc);
        const int length =
            snprintf(line, sizeof(line),
                     "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ %d %d %d %s:%d [bench] value=%d name=%s\n",
                     utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                     now.tv_nsec / 1000, pid, thread, written_level, "trace_bench.cpp", __LINE__, 1, "kesta");
        if (write(fd, line, static_cast<size_t>(length)) != length) {
            state.SkipWithError("the line was not written");
            break;
        }
    }
    (void)close(fd);  // a measurement: its file is of no worth
}
BENCHMARK(raw_line);

}  // namespace

BENCHMARK_MAIN();
