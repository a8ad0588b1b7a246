// Each copy flow beside cp + fsync of the same file, with what else the flow has to run; and the
// memory that it takes at most. Runs on a controller of a lab: KESTA_BENCH_SLOTS names the folder of
// the system backup area.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <kesta/kesta.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>

extern char **environ;

namespace {

namespace fs = std::filesystem;
using Step = std::function<bool()>;

const std::string flash = "/opt/kesta_sys/bakup/";
const std::string cache = "/tmp/kesta_sys/tmp/";
const std::string merge = "/var/run/kesta_sys/tmp/";
const std::string group = "bench";
const std::string copy_script = "/etc/kesta_sys/bench/env_copy_scr.sh";
constexpr int mega = 1000000;
constexpr int check_only = 0;
constexpr int unpack = 1;
constexpr int no_accept = 0;
constexpr int switch_only = 1;
constexpr int backup_slot = 1;

std::string slots()
{
    const char *folder = getenv("KESTA_BENCH_SLOTS");
    return folder ? folder : "/var/lib/kesta/sysback";
}

bool run(const std::string &command)
{
    std::string text = command;
    std::string shell = "/bin/sh";
    std::string option = "-c";
    char *arguments[] = {shell.data(), option.data(), text.data(), nullptr};
    pid_t child;
    int status = -1;
    return posix_spawn(&child, shell.c_str(), nullptr, nullptr, arguments, environ) == 0 &&
           waitpid(child, &status, 0) == child && status == 0;
}

bool flush(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const bool flushed = fd >= 0 && fsync(fd) == 0;
    (void)close(fd);  // read only
    return flushed;
}

bool copied(const std::string &from, const std::string &to) { return run("cp -p " + from + " " + to) && flush(to); }

bool unpacked()
{
    return run("cd " + cache + "; /usr/bin/bunzip2 -c " + cache +
               "backup.tar.Z | /usr/sbin/tar -xf - > /dev/null 2>&1");
}

// An archive of about so many megabytes: bytes that don't compress.
void make_archive(const std::string &path, long megabytes)
{
    const std::string folder = cache + "content";
    fs::create_directories(folder);
    std::ofstream file(folder + "/data", std::ios::binary);
    std::mt19937_64 random(1);
    std::string block(mega, '\0');
    for (long i = 0; i < megabytes; ++i) {
        for (std::size_t at = 0; at + sizeof(std::uint64_t) <= block.size(); at += sizeof(std::uint64_t)) {
            const std::uint64_t bits = random();
            block.replace(at, sizeof(bits), reinterpret_cast<const char *>(&bits), sizeof(bits));
        }
        file << block;
    }
    file.close();
    if (!run("tar -C " + cache + " -I 'bzip2 -1' -cf " + path + " content")) {
        abort();
    }
}

// Every place holds an archive of the size, whichever flow ran before.
void prepare(long megabytes)
{
    const std::string mark = "/opt/prepared-" + std::to_string(megabytes);
    if (fs::exists(mark)) {
        return;
    }
    make_archive(flash + "backup.tar.Z", megabytes);
    for (const std::string &place : {cache, merge}) {
        fs::copy_file(flash + "backup.tar.Z", place + "backup.tar.Z", fs::copy_options::overwrite_existing);
    }
    fs::create_directories(fs::path(copy_script).parent_path());
    std::ofstream(copy_script) << "exit 0\n";
    std::string name0 = KESTA_SLOT0;
    std::string name1 = KESTA_SLOT1;
    name0.resize(KESTA_AREA_NAME_SIZE);
    name1.resize(KESTA_AREA_NAME_SIZE);
    if (kestal_area_file_rw(KESTA_BLOCK_WRITE, name1.data(), name0.data()) != KESTA_OK ||
        kestal_cntbackup2backup() != KESTA_OK || kestal_merge_file2accept(name1.data()) != KESTA_OK) {
        abort();
    }
    for (const fs::directory_entry &entry : fs::directory_iterator("/opt")) {
        if (entry.is_regular_file()) {
            fs::remove(entry);  // the mark of another size
        }
    }
    std::ofstream(mark) << "\n";
}

// VmHWM begins anew.
void reset_peak() { std::ofstream("/proc/self/clear_refs") << "5"; }

double peak_mebibytes()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmHWM:", 0) == 0) {
            return std::stod(line.substr(6)) / 1024;
        }
    }
    return -1;
}

void measure(benchmark::State &state, const Step &step)
{
    if (kestal_get_cnt_num_from_cpinfo(KESTA_CPINFO_OWN_NUMBER) < 0) {
        abort();
    }
    prepare(state.range(0));
    // The slots and the archives are in memory, what was written before is on disk.
    sync();
    reset_peak();
    for (auto _ : state) {
        if (!step()) {
            state.SkipWithError("the copy failed");
            break;
        }
    }
    state.counters["peak_MiB"] = peak_mebibytes();
    state.counters["archive_MiB"] = static_cast<double>(fs::file_size(flash + "backup.tar.Z")) / (1 << 20);
}

bool flow_backup2tmp_check() { return kestal_backup2tmp(group.c_str(), no_accept, nullptr, check_only) == KESTA_OK; }
bool raw_backup2tmp_check() { return copied(slots() + "/" + KESTA_SLOT0, cache + "raw.tar.Z"); }

bool flow_backup2tmp() { return kestal_backup2tmp(group.c_str(), no_accept, nullptr, unpack) == KESTA_OK; }
bool raw_backup2tmp() { return raw_backup2tmp_check() && unpacked(); }

bool flow_cntbackup2tmp() { return kestal_cntbackup2tmp(group.c_str(), no_accept) == KESTA_OK; }
bool raw_cntbackup2tmp() { return copied(flash + "backup.tar.Z", cache + "raw.tar.Z"); }

bool flow_cntbackup2backup() { return kestal_cntbackup2backup() == KESTA_OK; }
bool raw_cntbackup2backup() { return copied(flash + "backup.tar.Z", slots() + "/raw"); }

bool flow_merge_file2accept()
{
    char name[KESTA_AREA_NAME_SIZE] = KESTA_SLOT1;
    return kestal_merge_file2accept(name) == KESTA_OK;
}
bool raw_merge_file2accept() { return copied(merge + "backup.tar.Z", slots() + "/raw"); }

bool flow_backup2copy()
{
    setenv("KESTA_CPMODE_STATUS", "2", 1);
    const bool done = kestal_backup2copy(group.c_str()) == KESTA_OK;
    unsetenv("KESTA_CPMODE_STATUS");
    return done;
}
bool raw_backup2copy()
{
    return run("cp -p " + slots() + "/" + KESTA_SLOT0 + " " + cache + "raw.tar.Z") && unpacked() &&
           copied(cache + "raw.tar.Z", flash + "raw.tar.Z") && run("/bin/sh " + copy_script);
}

bool flow_sysback2current()
{
    return kestal_sysback2current(group.c_str(), switch_only, backup_slot, 0, 0, nullptr, 0) == KESTA_OK;
}
bool raw_sysback2current() { return copied(slots() + "/" + KESTA_SLOT0, flash + "raw.tar.Z"); }

void add(const std::string &name, bool (*flow)(), bool (*raw)(), long megabytes)
{
    for (const auto &[prefix, step] : {std::pair{"flow_", flow}, std::pair{"raw_", raw}}) {
        auto *added =
            benchmark::RegisterBenchmark((prefix + name).c_str(),
                                         [step = Step(step)](benchmark::State &state) { measure(state, step); });
        added->Arg(megabytes)->Unit(benchmark::kMillisecond)->UseRealTime();
        added->Iterations(megabytes > 10 ? 1 : 10);
    }
}

}  // namespace

int main(int argc, char **argv)
{
    for (const long megabytes : {1L, 100L, 1000L}) {
        add("backup2tmp_check", flow_backup2tmp_check, raw_backup2tmp_check, megabytes);
        add("backup2tmp", flow_backup2tmp, raw_backup2tmp, megabytes);
        add("cntbackup2tmp", flow_cntbackup2tmp, raw_cntbackup2tmp, megabytes);
        add("cntbackup2backup", flow_cntbackup2backup, raw_cntbackup2backup, megabytes);
        add("merge_file2accept", flow_merge_file2accept, raw_merge_file2accept, megabytes);
        add("backup2copy", flow_backup2copy, raw_backup2copy, megabytes);
        add("sysback2current", flow_sysback2current, raw_sysback2current, megabytes);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
