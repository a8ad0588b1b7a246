// kesta-platform-check: holds the platform's four libraries against what libkesta relies on, and says
// which clause an implementation breaks. It finds the libraries as libkesta does, and needs an appliance
// that nobody else uses meanwhile. NV memory is put back as it was.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <filesystem>
#include <functional>
#include <iostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "mc_logapi.h"
#include "sanfwctl.h"
#include "sbacc.h"
#include "vrbapi.h"
#include "standard_descriptors.h"

namespace {

constexpr cpfw_nv_region_t image_region = 2;
constexpr cpfw_nv_region_t other_region = 0;
constexpr std::uint64_t region_size = 32768;
constexpr int no_handle = -1;
constexpr int rounds = 300;
constexpr const char *scratch = "kesta_platform_check";  // a file of the system backup area; it stays
constexpr const char *integer_file = "/etc/kesta_sys/.platform_check";

// What is wrong, or nothing.
using Outcome = std::string;

struct Clause {
    const char *library;
    const char *what;
    std::function<Outcome()> check;
};

// ------------------------------------------------------------------------------------- NV memory

int transfer(bool writes, cpfw_nv_region_t region, std::uint64_t offset, void *bytes,
             std::uint64_t size)
{
    cpfw_nv_access_t access{bytes, offset, size};
    return writes ? zKTsanfwctl_write_nv(no_handle, &region, &access, 1)
                  : zKTsanfwctl_read_nv(no_handle, &region, &access, 1);
}

int write_nv(std::uint64_t offset, std::string bytes, cpfw_nv_region_t region = image_region)
{
    return transfer(true, region, offset, bytes.data(), bytes.size());
}

std::string read_nv(std::uint64_t offset, std::size_t size, cpfw_nv_region_t region = image_region)
{
    std::string bytes(size, '?');
    return transfer(false, region, offset, bytes.data(), size) == 0 ? bytes : "(refused)";
}

// Runs a body in a process of its own. Whether it returned true.
bool in_process(const std::function<bool()> &body)
{
    const pid_t child = fork();
    if (child == 0) {
        _exit(body() ? 0 : 1);
    }
    int status = -1;
    return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

Outcome nv_keeps_what_is_written()
{
    for (const std::size_t size : {1U, 4U, 16U, 32U, 64U, 640U, 32768U}) {
        for (const cpfw_nv_region_t region : {image_region, other_region}) {
            const std::string bytes(size, static_cast<char>('a' + size % 26));
            if (write_nv(0, bytes, region) != 0) {
                return "a write of " + std::to_string(size) + " bytes to region " +
                       std::to_string(region) + " is refused";
            }
            if (read_nv(0, size, region) != bytes) {
                return std::to_string(size) + " bytes of region " + std::to_string(region) +
                       " are not read back as they were written";
            }
        }
    }
    return "";
}

Outcome nv_writes_touch_nothing_else()
{
    if (write_nv(96, std::string(64, '.')) != 0 || write_nv(104, "12345678") != 0) {
        return "a write is refused";
    }
    return read_nv(96, 64) == "........12345678" + std::string(48, '.') ? ""
                                                                        : "bytes beside it changed";
}

Outcome nv_is_shared()
{
    if (!in_process([] { return write_nv(200, "from another process") == 0; })) {
        return "another process can't write";
    }
    if (read_nv(200, 20) != "from another process") {
        return "what another process wrote is not read";
    }
    return in_process([] { return read_nv(200, 4) == "from"; }) ? "" : "another process can't read";
}

Outcome nv_transfers_are_whole()
{
    constexpr std::size_t size = 64;  // the inner lock's
    (void)write_nv(600, std::string(size, 'A'));
    const pid_t writer = fork();
    if (writer == 0) {
        for (int i = 0; i < rounds * 10; ++i) {
            (void)write_nv(600, std::string(size, i % 2 == 0 ? 'A' : 'B'));
        }
        _exit(0);
    }
    Outcome outcome;
    for (int status = 0; waitpid(writer, &status, WNOHANG) == 0;) {
        const std::string seen = read_nv(600, size);
        if (seen != std::string(size, seen[0])) {
            outcome = "half of one transfer was seen beside half of another";
        }
    }
    return outcome;
}

Outcome nv_refuses_what_is_out_of_range()
{
    const std::string before = read_nv(region_size - 4, 4);
    std::string bytes(8, 'X');
    if (transfer(true, image_region, region_size - 4, bytes.data(), 8) == 0) {
        return "a write beyond the region's end succeeds";
    }
    if (transfer(false, image_region, region_size, bytes.data(), 4) == 0) {
        return "a read beyond the region's end succeeds";
    }
    return read_nv(region_size - 4, 4) == before ? "" : "a refused write has written";
}

// Runs a body in many threads at once; the first complaint.
Outcome in_threads(int count, const std::function<Outcome(int)> &body)
{
    std::vector<Outcome> outcomes(static_cast<std::size_t>(count));
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&, i] { outcomes[static_cast<std::size_t>(i)] = body(i); });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    for (const Outcome &outcome : outcomes) {
        if (!outcome.empty()) {
            return outcome;
        }
    }
    return "";
}

Outcome nv_serves_threads()
{
    return in_threads(12, [](int i) -> Outcome {
        const std::uint64_t offset = 1024 + 64 * static_cast<std::uint64_t>(i);
        for (int round = 0; round < rounds; ++round) {
            const std::string bytes(64, static_cast<char>('a' + (i + round) % 26));
            if (write_nv(offset, bytes) != 0 || read_nv(offset, 64) != bytes) {
                return "a thread does not read what it wrote";
            }
        }
        return "";
    });
}

Outcome status_is_told()
{
    sanfw_getstatus_out two;
    sanfw_getstatus_ex_out four;
    if (zKTsanfwctl_get_status(0, &two) != 0) {
        return "zKTsanfwctl_get_status is refused for kind 0";
    }
    return zKTsanfwctl_get_status_ex(1, &four) == 0 ? ""
                                                    : "zKTsanfwctl_get_status_ex is refused for kind 1";
}

// ------------------------------------------------------------------------- system backup area

class Opened {
public:
    explicit Opened(const char *mode, const char *name = scratch)
        : result_(sbacc_open(name, mode, &handle_, &close_flag_))
    {
    }
    ~Opened() { (void)close(); }
    Opened(const Opened &) = delete;
    Opened &operator=(const Opened &) = delete;

    int result() const { return result_; }
    int handle() const { return handle_; }
    int close_flag() const { return close_flag_; }
    int close()
    {
        const bool open = result_ >= 0;
        result_ = -1;
        return open ? sbacc_close(handle_) : 0;
    }

private:
    int handle_ = -1;
    int close_flag_ = -1;
    int result_;
};

bool write_area(const std::string &bytes, const char *name = scratch)
{
    Opened file("w", name);
    return file.result() >= 0 &&
           sbacc_write(bytes.data(), static_cast<unsigned>(bytes.size()), 0, file.handle()) ==
               static_cast<int>(bytes.size()) &&
           file.close() >= 0;
}

std::string read_area(const char *name = scratch)
{
    Opened file("r", name);
    if (file.result() < 0) {
        return "(refused)";
    }
    const int size = sbacc_read_size(file.handle());
    std::string bytes(size > 0 ? static_cast<std::size_t>(size) : 0, '?');
    const int got = sbacc_read(bytes.data(), static_cast<unsigned>(bytes.size()), 0, file.handle());
    return size < 0 || got != size ? "(refused)" : bytes;
}

Outcome area_keeps_what_is_written()
{
    for (const std::size_t size : {4U, 16U, 32U, 100000U}) {
        const std::string bytes(size, static_cast<char>('a' + size % 26));
        if (!write_area(bytes)) {
            return "a file of " + std::to_string(size) + " bytes can't be written";
        }
        if (read_area() != bytes) {
            return std::to_string(size) + " bytes are not read back, with their size, as they were "
                                          "written";
        }
    }
    return "";
}

Outcome area_refuses_what_is_not_there()
{
    const Opened missing("r", "kesta_no_such_file");
    return missing.result() < 0 ? "" : "a file that does not exist is opened for reading";
}

Outcome area_tells_of_proper_closing()
{
    if (!write_area("closed")) {
        return "a file can't be written";
    }
    const Opened file("r");
    return file.close_flag() == 1 ? "" : "the close flag of a file that was closed in order is not 1";
}

Outcome area_shows_a_file_when_it_is_closed()
{
    if (!write_area("old")) {
        return "a file can't be written";
    }
    Opened file("w");
    if (sbacc_write("new", 3, 0, file.handle()) != 3) {
        return "a file can't be written";
    }
    if (read_area() != "old") {
        return "others see a file that is not closed yet";
    }
    if (file.close() < 0) {
        return "a file can't be closed";
    }
    return read_area() == "new" ? "" : "a closed file does not hold what was written";
}

Outcome area_replaces_files_whole()
{
    (void)write_area(std::string(4096, 'A'));
    const pid_t writer = fork();
    if (writer == 0) {
        for (int i = 0; i < rounds; ++i) {
            (void)write_area(std::string(4096, i % 2 == 0 ? 'A' : 'B'));
        }
        _exit(0);
    }
    Outcome outcome;
    for (int status = 0; waitpid(writer, &status, WNOHANG) == 0;) {
        const std::string seen = read_area();
        if (seen != std::string(4096, seen[0])) {
            outcome = "a reader saw a file that was neither the old nor the new one";
        }
    }
    return outcome;
}

Outcome area_reads_parts()
{
    if (!write_area("0123456789")) {
        return "a file can't be written";
    }
    const Opened file("r");
    std::array<char, 16> bytes{};
    if (sbacc_read(bytes.data(), 4, 3, file.handle()) != 4 || memcmp(bytes.data(), "3456", 4) != 0) {
        return "4 bytes at offset 3 are not what stands there";
    }
    return sbacc_read(bytes.data(), 8, 6, file.handle()) == 4
               ? ""
               : "a read beyond the end does not return the bytes that there are";
}

Outcome area_results_are_signed()
{
    std::array<char, 4> bytes{};
    if (sbacc_read(bytes.data(), 4, 0, no_handle) >= 0) {
        return "a read of a handle that is not open does not fail";
    }
    if (sbacc_write(bytes.data(), 4, 0, no_handle) >= 0) {
        return "a write of a handle that is not open does not fail";
    }
    return sbacc_close(no_handle) < 0 ? "" : "a close of a handle that is not open does not fail";
}

Outcome area_serves_threads()
{
    return in_threads(12, [](int i) -> Outcome {
        const std::string name = std::string(scratch) + std::to_string(i);
        for (int round = 0; round < 20; ++round) {
            const std::string bytes(32, static_cast<char>('a' + (i + round) % 26));
            if (!write_area(bytes, name.c_str()) || read_area(name.c_str()) != bytes) {
                return "a thread does not read what it wrote";
            }
        }
        return "";
    });
}

// ---------------------------------------------------------------------------- cluster platform

Outcome integers_are_kept()
{
    _VRBAPIERRINFO error{};
    for (const int value : {0, 3, 2147483647}) {
        int read = -1;
        if (vrbapi_setint_to_file(integer_file, value, &error) != 0) {
            return "an integer can't be written to " + std::string(integer_file);
        }
        if (vrbapi_getint_from_file(integer_file, 1, 0, 2147483647, &read, &error) != 0 ||
            read != value) {
            return "an integer is not read back";
        }
    }
    return "";
}

Outcome integers_are_checked()
{
    _VRBAPIERRINFO error{};
    int read = -1;
    (void)vrbapi_setint_to_file(integer_file, 7, &error);
    if (vrbapi_getint_from_file(integer_file, 1, 0, 3, &read, &error) == 0) {
        return "an integer above the highest value is accepted";
    }
    (void)unlink(integer_file);
    error = {};
    if (vrbapi_getint_from_file(integer_file, 1, 0, 3, &read, &error) == 0) {
        return "a file that does not exist is read";
    }
    return error.s_errno != 0 ? "" : "the error record is not filled on failure";
}

Outcome master_is_told()
{
    std::uint8_t master = 255;
    _VRBAPIERRINFO error{};
    int extra = 0;
    if (vrbgetsanfwinfo(VRB_SANFWINFO_MASTER, &master, &error, &extra) != 0) {
        return "vrbgetsanfwinfo is refused for kind 1";
    }
    return master < 4 ? "" : "the master is controller " + std::to_string(master);
}

Outcome network_is_told()
{
    std::array<vrb_netconfig_t, 2> records{};
    if (vrbgetnetconfig(records.data()) != 0) {
        return "vrbgetnetconfig fails";
    }
    return records[0].cntno != records[1].cntno ? "" : "both records are of one controller";
}

// ------------------------------------------------------------------------------------ the trace

Outcome traces_keep_errno()
{
    for (int level = 1; level <= 5; ++level) {
        errno = 4711;
        MC_OutTrace("platform_check.cpp", __LINE__, level, "[platform_check] level %d %s", level,
                    std::string(5000, 'x').c_str());
        if (errno != 4711) {
            return "MC_OutTrace has changed errno at level " + std::to_string(level);
        }
    }
    return "";
}

Outcome traces_serve_threads()
{
    return in_threads(8, [](int i) -> Outcome {
        for (int round = 0; round < rounds; ++round) {
            MC_OutTrace("platform_check.cpp", __LINE__, 5, "[platform_check] thread %d", i);
        }
        return "";
    });
}

// ------------------------------------------------------------------------------------- all of it

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

// The library runs commands beside other threads: they must not inherit what the platform has open.
Outcome descriptors_are_closed_on_exec()
{
    (void)read_nv(0, 4);
    const Opened file("r");
    for (const int fd : open_descriptors()) {
        const int flags = fcntl(fd, F_GETFD);
        if (inherited().count(fd) == 0 && flags >= 0 && (flags & FD_CLOEXEC) == 0) {
            return "descriptor " + std::to_string(fd) + " stays open in commands that are run";
        }
    }
    return "";
}

const std::vector<Clause> &clauses()
{
    static const std::vector<Clause> all{
        {"libsanfwctl", "what is written is read back, in all sizes, in regions 0 and 2",
         nv_keeps_what_is_written},
        {"libsanfwctl", "a write touches nothing beside it", nv_writes_touch_nothing_else},
        {"libsanfwctl", "all processes share the regions", nv_is_shared},
        {"libsanfwctl", "a transfer is seen whole or not at all", nv_transfers_are_whole},
        {"libsanfwctl", "a transfer beyond the end is refused, and does nothing",
         nv_refuses_what_is_out_of_range},
        {"libsanfwctl", "threads may transfer at once", nv_serves_threads},
        {"libsanfwctl", "the controller status is told", status_is_told},
        {"libsbacc", "what is written is read back, with its size", area_keeps_what_is_written},
        {"libsbacc", "a file that is not there is refused", area_refuses_what_is_not_there},
        {"libsbacc", "the close flag tells of a proper close", area_tells_of_proper_closing},
        {"libsbacc", "a file is seen when it is closed, and not before",
         area_shows_a_file_when_it_is_closed},
        {"libsbacc", "a file is replaced whole", area_replaces_files_whole},
        {"libsbacc", "parts of a file can be read", area_reads_parts},
        {"libsbacc", "failures are results below 0", area_results_are_signed},
        {"libsbacc", "threads may work on files of their own", area_serves_threads},
        {"libvrbapi", "an integer is read back", integers_are_kept},
        {"libvrbapi", "ranges are checked, and the error record is filled", integers_are_checked},
        {"libvrbapi", "the master is a controller's number", master_is_told},
        {"libvrbapi", "the network configuration has two controllers", network_is_told},
        {"libmc_logapi", "a trace leaves errno as it was", traces_keep_errno},
        {"libmc_logapi", "threads may trace at once", traces_serve_threads},
        {"all", "descriptors are closed in commands that are run", descriptors_are_closed_on_exec},
    };
    return all;
}

// Regions 0 and 2 as they were.
class KeptRegions {
public:
    KeptRegions()
        : image_(read_nv(0, region_size, image_region)), other_(read_nv(0, region_size, other_region))
    {
    }
    bool put_back() const
    {
        return image_.size() == region_size && other_.size() == region_size &&
               write_nv(0, image_, image_region) == 0 && write_nv(0, other_, other_region) == 0;
    }

private:
    std::string image_;
    std::string other_;
};

int check_all()
{
    const KeptRegions kept;
    int failed = 0;
    for (const Clause &clause : clauses()) {
        const Outcome outcome = clause.check();
        failed += outcome.empty() ? 0 : 1;
        std::cout << (outcome.empty() ? "ok    " : "FAIL  ") << clause.library << ": " << clause.what
                  << (outcome.empty() ? "" : " -- " + outcome) << std::endl;
    }
    if (!kept.put_back()) {
        std::cout << "FAIL  NV memory could not be put back as it was" << std::endl;
        ++failed;
    }
    std::cout << clauses().size() << " clauses, " << failed << " broken\n";
    return failed == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv)
{
    kesta::open_standard_descriptors();
    inherited() = open_descriptors();
    CLI::App app{"Holds the platform's four libraries against what libkesta relies on.",
                 "kesta-platform-check"};
    bool run = false;
    app.add_flag("--run", run, "Do it: nobody else may use the appliance meanwhile");
    app.footer("NV memory is put back as it was. Files named kesta_platform_check stay in the system\n"
               "backup area. Exit codes: 0 all clauses hold, 1 one is broken, 2 wrong usage.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        const int code = app.exit(error);
        return code == 0 ? 0 : 2;
    }
    if (!run) {
        std::cerr << "kesta-platform-check writes NV memory and the system backup area.\n"
                     "Give --run on an appliance that nobody else uses meanwhile.\n";
        return 2;
    }
    return check_all();
}
