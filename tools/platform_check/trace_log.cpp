#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "clause.h"
#include "mc_logapi.h"

namespace platform_check {
namespace {

constexpr const char *source = "platform_check.cpp";
constexpr std::size_t longest_kept = 1024;

std::string &trace_log()
{
    static std::string path;
    return path;
}

Outcome keeps_errno()
{
    for (int level = 1; level <= 5; ++level) {
        errno = 4711;
        MC_OutTrace(source, __LINE__, level, "[platform_check] level %d %s", level, std::string(5000, 'x').c_str());
        if (errno != 4711) {
            return "MC_OutTrace has changed errno at level " + std::to_string(level);
        }
    }
    return "";
}

// The last ones are larger than what lies behind any buffer that is too small.
Outcome bears_long_text()
{
    for (const std::size_t size : {2047U, 4096U, 8191U, 8192U, 65536U, 16U << 20U}) {
        const std::string text(size, 'x');
        if (!in_process([&] {
                for (int level = 1; level <= 5; ++level) {
                    MC_OutTrace(source, __LINE__, level, "%s", text.c_str());
                }
                return true;
            })) {
            return "a trace of " + std::to_string(size) + " characters ends the process";
        }
    }
    return "";
}

std::string contents_of(const std::string &path)
{
    const std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

// What the platform has open as plain files: its log, if it keeps it open.
std::string contents_of_open_files()
{
    std::string all;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        struct stat status {};
        if (stat(entry.path().c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
            all += contents_of(entry.path());
        }
    }
    return all;
}

// What a trace of level 1 leaves in the log, with stderr caught.
std::string logged(const std::string &text)
{
    const int caught = memfd_create("stderr", MFD_CLOEXEC);
    if (caught < 0 || dup2(caught, STDERR_FILENO) < 0) {
        return "";
    }
    MC_OutTrace("../common/platform_check.cpp", 4711, 1, "[%s] %d %s", "platform_check", static_cast<int>(getpid()),
                text.c_str());
    return trace_log().empty() ? contents_of_open_files() : contents_of(trace_log());
}

Outcome keeps_text()
{
    const std::string pid = std::to_string(getpid());
    // Bytes that a second formatting would change, and an end that shows where it was cut.
    const std::string text = "100%s %d%% " + std::string(longest_kept - 32, 'k') + " end of " + pid;
    const std::string log = logged(text);
    const std::size_t line = log.rfind("[platform_check] " + pid);
    if (line == std::string::npos) {
        return log.find("platform_check") == std::string::npos ? "no log has it (name the log's file with --trace-log)"
                                                               : "the text of a trace is not in the log";
    }
    if (log.compare(line, text.size() + pid.size() + 18, "[platform_check] " + pid + " " + text) != 0) {
        return "less than " + std::to_string(longest_kept) + " characters of a trace are kept";
    }
    const std::size_t begin = log.rfind('\n', line);
    const std::string head = log.substr(begin == std::string::npos ? 0 : begin, line - begin);
    return head.find("platform_check.cpp") != std::string::npos && head.find("4711") != std::string::npos
               ? ""
               : "file and line of a trace are not in the log";
}

Outcome strips_paths()
{
    const std::string path = "../common/kestal_backup_rw.cpp";
    const char *part = MC_FilePathDel(path.c_str());
    if (!part || part < path.c_str() || part >= path.c_str() + path.size()) {
        return "MC_FilePathDel does not return a pointer into the path that it was given";
    }
    return strcmp(part, "kestal_backup_rw.cpp") == 0 ? "" : "it leaves " + std::string(part);
}

Outcome serves_threads()
{
    return in_threads(8, [](int i) -> Outcome {
        for (int round = 0; round < rounds; ++round) {
            MC_OutTrace(source, __LINE__, 5, "[platform_check] thread %d", i);
        }
        return "";
    });
}

}  // namespace

void set_trace_log(const std::string &path) { trace_log() = path; }

Clauses trace_clauses()
{
    constexpr const char *library = "libmc_logapi";
    return {
        {library, "a trace leaves errno as it was", keeps_errno},
        {library, "a trace of any length is borne", bears_long_text},
        {library, "the log has the text of a trace, 1024 characters of it, its file and line", keeps_text},
        {library, "a source path is stripped to its file, within the same text", strips_paths},
        {library, "threads may trace at once", serves_threads},
    };
}

}  // namespace platform_check
