// The platform as the tests see it: NV memory, system backup area, trace log and cluster platform
// in memory, the operating system's services recorded, time virtual, and every call able to fail.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "nv_memory.h"

namespace test {

struct Trace {
    int level;
    std::string text;
    std::string file;

    bool operator==(const Trace &) const = default;
};

struct StoredFile {
    std::string bytes;
    int recorded_size = -1;  // -1: not recorded, the length counts
};

struct CommandOutput {
    std::string output;
    int status = 0;
};

struct Platform {
    // --- what the appliance holds
    NvMemory nv;                                    // region 2
    std::map<unsigned, std::string> other_regions;  // 32768 bytes each
    std::map<std::string, StoredFile> sysback;
    std::map<std::string, int> integer_files;
    int master = 0;
    int own_record = 0;  // the number that the network configuration tells
    std::uint8_t cont_sts[4]{};
    std::uint8_t card_sts[4]{};
    std::map<std::string, CommandOutput> commands;  // of popen; another one runs for real

    // --- what happened
    std::vector<Trace> traces;
    std::vector<std::string> calls;  // of the platform and the operating system, in order
    int open_handles = 0;            // of the system backup area
    int open_pipes = 0;
    int open_xml_objects = 0;  // documents, contexts and results of libxml2

    // --- virtual time
    std::int64_t wall_seconds = 1'000'000;
    std::int64_t clock_us = 500'000'000;  // of the process-times clock; usleep moves it
    bool clock_stands = false;            // usleep doesn't

    // --- faults: the Nth call of any kind fails, once or from then on; 0 is never
    long fail_at = 0;
    bool fail_from_then_on = false;
    long calls_met = 0;
    bool fault_met = false;
    // Calls that fail by kind: remaining successes before it fails, and how often then.
    std::map<std::string, std::pair<int, int>> kind_faults;
    int fault_errno = 5;

    // --- hooks
    std::function<void(const std::string &call)> before_call;
    std::function<void(const std::string &call)> after_call;
    std::function<void(const std::string &text)> after_trace;

    // --- special results
    int close_flag = 1;
    int close_result = 0;
    int read_size_result = 0;          // negative: sbacc_read_size gives it
    int short_by = 0;                  // bytes by which transfers of the area end early
    bool run_system = false;           // system() runs for real; else it gives system_status
    std::vector<int> system_statuses;  // results of system(), the last one for all that follow
    std::vector<std::string> system_commands;

    // Whether this call has to fail.
    bool meets_fault(const std::string &kind, const std::string &call);
    void fail_kind(const std::string &kind, int after = 0, int times = 1'000'000)
    {
        kind_faults[kind] = {after, times};
    }

    bool traced(int level, const std::string &text) const;
    std::vector<std::string> texts(int level) const;
    int count(const std::string &text) const;      // traces that hold the text
    int count_now(const std::string &text) const;  // while other threads trace
    std::vector<std::string> calls_of(const std::string &kind) const;

    std::int32_t int_at(std::size_t offset) const;
    void set_int(std::size_t offset, std::int32_t value);
    std::string text_at(std::size_t offset, std::size_t size) const;
    void set_text(std::size_t offset, const std::string &text, std::size_t size);
};

// The one platform of the process. reset() makes a new one, and brings the library's process-wide
// state back to how it is at start.
Platform &platform();
void reset(int own_number = 0);

// Runs a command of the test's own, which is no call of the library.
int run_shell(const std::string &command);

// Descriptors that are open now.
int open_descriptors();

}  // namespace test
