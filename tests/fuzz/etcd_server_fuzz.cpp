// What programs do with the two libraries of the etcd platform, over sockets to members that do to each call what the input
// says: carry it out or not, now or late; answer well, with each refusal, with a part, with garbage, without end, or not at
// all. In between somebody else writes, leases end, revisions go, the store is full. The members' lies are such bytes of
// the input as they send; without one, nothing that was answered may be lost, and nothing that was refused come back.
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <optional>

#include "contract.h"
#include "etcd_ledger.h"
#include "etcd_members.h"
#include "libraries_anew.h"
#include "mc_logapi.h"
#include "sanfwctl.h"
#include "sbacc.h"

using fuzz::FileLedger;
using fuzz::RegionLedger;
using fuzz::require;

// The trace log: what members say goes there.
extern "C" const char *MC_FilePathDel(const char *path) { return path; }
extern "C" void MC_OutTrace(const char * /*file*/, int /*line*/, int /*level*/, const char *format, ...)
{
    std::array<char, 1024> text{};
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    fuzz::require_printable(text.data());
    require(std::string_view(text.data()).find('\n') == std::string_view::npos, "a trace of several lines");
}

namespace {

constexpr unsigned most_steps = 24;
constexpr int transfer_ms = 2000;  // as the settings have them
constexpr int chunk_ms = 5000;
constexpr int slack_ms = 60;  // an endless answer takes the clock on by 50 at a time
constexpr int most_descriptors = 64;
constexpr std::size_t head_size = 4096;  // of a region, which has all that is written

int open_descriptors()
{
    int count = 0;
    for (int fd = 0; fd < most_descriptors; ++fd) {
        count += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
    }
    return count;
}

// A call of a library: it ends in its time, with a result that is documented.
class TimedCall {
public:
    explicit TimedCall(std::int64_t most_ms) : most_ms_(most_ms) {}

    int end(int result, bool of_files) const
    {
        require(fuzz::virtual_ms() - begun_ <= most_ms_ + slack_ms, "a call took longer than it may");
        constexpr std::array<int, 7> documented{-ETIMEDOUT, -ENOSPC, -EACCES, -ESTALE, -EIO, -ENOTSUP, -EPROTO};
        if (result < 0 && !(of_files && result == -ENOENT) &&
            std::find(documented.begin(), documented.end(), result) == documented.end()) {
            fprintf(stderr, "%d, ", result);
            fuzz::broken("a result that is not documented");
        }
        return result;
    }

private:
    const std::int64_t most_ms_;
    const std::int64_t begun_ = fuzz::virtual_ms();
};

class Program {
public:
    explicit Program(std::string_view input) : choices_(input), members_(choices_)
    {
        members_.somebody_else = [this](unsigned how) {
            act_as_somebody_else(how);
        };
    }
    ~Program()
    {
        fuzz::begin_sanfwctl_anew();
        fuzz::begin_sbacc_anew();
    }
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    void run();

private:
    struct Kept {
        int handle;
        std::size_t file;
        std::int64_t since;
        unsigned size;
    };

    void step(unsigned choice);
    void write_nv(unsigned choice);
    void write_slot(unsigned slot, bool claim);
    void put_nv(std::size_t region, RegionLedger::Write &write);
    void repeat_nv();
    void read_nv(std::size_t region);
    void write_new_file(unsigned choice, std::size_t size);
    void put_file(std::size_t file, FileLedger::Write &write, unsigned how);
    int transfer_file(std::size_t file, const std::string &contents, unsigned how);
    void repeat_file();
    void read_file(std::size_t file, bool keep);
    void read_kept();
    void close_kept();
    void record_size(std::size_t file);
    void act_as_somebody_else(unsigned how);
    void meet(unsigned choice);
    void begin_anew();
    void judge();
    void come_to_rest();

    std::string fresh_bytes(std::size_t size);
    int access_nv(std::size_t region, std::uint64_t offset, std::string &bytes, bool writes);
    int file_call(int result, const TimedCall &call) { return call.end(result, true); }

    fuzz::Choices choices_;
    fuzz::EtcdMembers members_;
    fuzz::Foreign foreign_;
    std::array<RegionLedger, 2> regions_{RegionLedger(members_.store, foreign_, 2),
                                         RegionLedger(members_.store, foreign_, 0)};
    std::array<FileLedger, 2> files_{FileLedger(members_.store, foreign_, "kesta_backup0"),
                                     FileLedger(members_.store, foreign_, "kesta_item")};
    // The write that was the last one, if it failed: it may be repeated.
    RegionLedger::Write *failed_nv_ = nullptr;
    std::size_t failed_region_ = 0;
    std::array<FileLedger::Write *, 2> failed_file_{};
    std::optional<Kept> kept_;
    unsigned counter_ = 0;
    bool nv_prepared_ = false;
};

std::string Program::fresh_bytes(std::size_t size)
{
    std::string text = "value " + std::to_string(++counter_) + " ";
    std::string bytes;
    while (bytes.size() < size) {
        bytes += text;
    }
    bytes.resize(std::max<std::size_t>(size, text.size()));
    return bytes;
}

int Program::access_nv(std::size_t region, std::uint64_t offset, std::string &bytes, bool writes)
{
    cpfw_nv_region_t number = region == 0 ? 2 : 0;
    cpfw_nv_access_t access{bytes.data(), offset, bytes.size()};
    const TimedCall call(nv_prepared_ ? transfer_ms : 2 * transfer_ms);
    const int result =
        writes ? zKTsanfwctl_write_nv(-1, &number, &access, 1) : zKTsanfwctl_read_nv(-1, &number, &access, 1);
    nv_prepared_ = nv_prepared_ || (result == 0 && writes);
    return call.end(result, false);
}

void Program::put_nv(std::size_t region, RegionLedger::Write &write)
{
    std::string bytes = write.bytes;
    const int result = access_nv(region, write.offset, bytes, true);
    failed_nv_ = result != 0 ? &write : nullptr;
    failed_region_ = region;
    judge();
    if (result == 0 && !members_.lied()) {
        require(!write.unique || write.made == 1, "what was answered as written is not there");
    }
    if (result == 0) {
        regions_[region].written(write);
    } else {
        regions_[region].failed(write);
    }
}

void Program::write_nv(unsigned choice)
{
    const std::size_t region = choice & 1U;
    const std::uint64_t offset = 1024 + (choice >> 1U & 3U) * 64;
    put_nv(region, regions_[region].ask(offset, fresh_bytes(16 + (choice >> 3U)), true));
}

void Program::write_slot(unsigned slot, bool claim)
{
    const std::uint64_t offset = etcd::first_slot + slot % etcd::slot_count * etcd::slot_size;
    std::string bytes = claim ? fresh_bytes(etcd::slot_size) : std::string(etcd::slot_size, '\0');
    put_nv(0, regions_[0].ask(offset, bytes, claim));
}

void Program::repeat_nv()
{
    if (failed_nv_) {
        put_nv(failed_region_, *failed_nv_);
    }
}

void Program::read_nv(std::size_t region)
{
    std::string bytes(head_size, '?');
    const std::int64_t since = members_.store.revision();
    if (access_nv(region, 0, bytes, false) != 0) {
        return;
    }
    failed_nv_ = nullptr;
    require(members_.lied() || regions_[region].had_since(since, 0, bytes), "what was read was never there");
    regions_[region].read(0, bytes);
}

int Program::transfer_file(std::size_t file, const std::string &contents, unsigned how)
{
    int handle = -1;
    int close_flag = 0;
    const TimedCall opening(2 * transfer_ms);
    if (const int error = file_call(sbacc_open(files_[file].name().c_str(), "w", &handle, &close_flag), opening);
        error != 0) {
        return error;
    }
    // In one piece, or in two with time between them.
    const std::size_t first = (how & 1U) != 0 ? contents.size() / 2 : contents.size();
    int error = 0;
    for (std::size_t at = 0; at < contents.size() && error == 0; at += first) {
        const std::string piece = contents.substr(at, first);
        const TimedCall writing(10 * chunk_ms);
        const int written =
            file_call(sbacc_write(piece.data(), static_cast<unsigned>(piece.size()), static_cast<unsigned>(at), handle),
                      writing);
        error = std::min(written, 0);
        if ((how & 2U) != 0) {
            fuzz::let_time_pass(25'000);
        }
    }
    const TimedCall closing(10 * chunk_ms);
    const int closed = file_call(sbacc_close(handle), closing);
    return error != 0 ? error : closed;
}

void Program::put_file(std::size_t file, FileLedger::Write &write, unsigned how)
{
    const std::string contents = write.contents;
    const int result = transfer_file(file, contents, how);
    failed_file_[file] = result != 0 ? &write : nullptr;
    judge();
    require(result != 0 || members_.lied() || write.made == 1, "a file that was answered as written is not there");
}

void Program::write_new_file(unsigned choice, std::size_t size)
{
    const std::size_t file = choice & 1U;
    put_file(file, files_[file].ask(fresh_bytes(size)), choice >> 1U);
}

void Program::repeat_file()
{
    for (std::size_t file = 0; file < files_.size(); ++file) {
        if (failed_file_[file]) {
            put_file(file, *failed_file_[file], 0);
        }
    }
}

void Program::read_file(std::size_t file, bool keep)
{
    int handle = -1;
    int close_flag = 0;
    const std::int64_t since = members_.store.revision();
    failed_file_[file] = nullptr;
    const TimedCall opening(2 * transfer_ms);
    const int opened = file_call(sbacc_open(files_[file].name().c_str(), "r", &handle, &close_flag), opening);
    if (opened != 0) {
        require(members_.lied() || opened != -ENOENT || files_[file].had_since(since, "(nothing)"),
                "a file that is there is said not to be");
        return;
    }
    const int size = sbacc_read_size(handle);
    require(size >= 0, "an open file has no size");
    close_kept();
    kept_ = Kept{handle, file, since, static_cast<unsigned>(size)};
    if (!keep) {
        read_kept();
    }
}

void Program::read_kept()
{
    if (!kept_) {
        return;
    }
    // More than any of them has: a lie may tell any size.
    std::string bytes(std::size_t{1} << 18U, '?');
    const TimedCall reading(20 * chunk_ms);
    const int got = file_call(sbacc_read(bytes.data(), static_cast<unsigned>(bytes.size()), 0, kept_->handle), reading);
    if (got >= 0 && !members_.lied()) {
        bytes.resize(static_cast<std::size_t>(got));
        require(files_[kept_->file].had_since(kept_->since, bytes), "contents were read that were never there");
    }
    close_kept();
}

void Program::close_kept()
{
    if (kept_) {
        require(sbacc_close(kept_->handle) == 0, "an open file can't be closed");
        kept_.reset();
    }
}

void Program::record_size(std::size_t file)
{
    int handle = -1;
    int close_flag = 0;
    failed_file_[file] = nullptr;
    const TimedCall opening(2 * transfer_ms);
    if (file_call(sbacc_open(files_[file].name().c_str(), "w", &handle, &close_flag), opening) == 0) {
        const TimedCall recording(4 * transfer_ms);
        (void)file_call(sbacc_write_size(1 + choices_.next(), handle), recording);
        require(sbacc_close(handle) == 0, "a file in which nothing was written can't be closed");
    }
    judge();
}

void Program::act_as_somebody_else(unsigned how)
{
    const std::size_t which = how >> 2U & 1U;
    switch (how & 3U) {
    case 0:
        regions_[which].somebody_else(1024 + (how >> 3U & 3U) * 64, fresh_bytes(16), foreign_);
        break;
    case 1:
        regions_[0].somebody_else(etcd::first_slot + (how >> 3U & 3U) * etcd::slot_size,
                                  which == 0 ? std::string(etcd::slot_size, '\0') : fresh_bytes(etcd::slot_size),
                                  foreign_);
        break;
    case 2:
        files_[which].somebody_else(fresh_bytes(20 + how), foreign_);
        break;
    default:
        members_.store.put("/kesta/elsewhere", fresh_bytes(8));
        break;
    }
}

// What happens to the cluster.
void Program::meet(unsigned choice)
{
    switch (choice & 3U) {
    case 0:
        members_.store.compact();
        break;
    case 1:
        members_.store.end_leases();
        break;
    case 2:
        members_.store.fill((choice & 4U) != 0);
        break;
    default:
        members_.store.set_in_use((choice & 4U) != 0 ? 5'000'000'000 : 0);
        break;
    }
}

void Program::begin_anew()
{
    kept_.reset();
    fuzz::begin_sanfwctl_anew();
    fuzz::begin_sbacc_anew();
    regions_[0].begin_anew();
    failed_nv_ = nullptr;
    failed_file_ = {};
    nv_prepared_ = false;
}

void Program::judge()
{
    if (members_.lied()) {
        return;
    }
    for (RegionLedger &region : regions_) {
        region.judge();
    }
    for (FileLedger &file : files_) {
        file.judge();
    }
}

void Program::step(unsigned choice)
{
    const unsigned how = choice >> 4U;
    switch (choice & 15U) {
    case 1:
        return read_nv(how & 1U);
    case 2:
        return repeat_nv();
    case 3:
        return write_slot(how, true);
    case 4:
        return write_slot(how, false);
    case 5:
        return act_as_somebody_else(choices_.next());
    case 6:
        return write_new_file(how, 30);
    case 7:
        return write_new_file(how, 65537 + how * 5000);
    case 8:
        return repeat_file();
    case 9:
        return read_file(how & 1U, false);
    case 10:
        return read_file(how & 1U, true);
    case 11:
        return read_kept();
    case 12:
        return record_size(how & 1U);
    case 13:
        members_.release();
        return judge();
    case 14:
        return meet(choices_.next());
    case 15:
        return how == 0 ? begin_anew() : fuzz::let_time_pass(how * 1000);
    default:
        return write_nv(choices_.next());
    }
}

// All members answer well from now on. Then everything can be done again.
void Program::come_to_rest()
{
    members_.heal();
    members_.store.fill(false);
    members_.store.set_in_use(0);
    members_.release();
    judge();
    if (members_.lied()) {
        return;
    }
    for (std::size_t i = 0; i < regions_.size(); ++i) {
        read_nv(i);
        for (unsigned slot = 0; i == 0 && slot < etcd::slot_count; ++slot) {
            if (regions_[0].holds(slot)) {
                write_slot(slot, false);
            }
        }
        RegionLedger::Write &last = regions_[i].ask(1024, fresh_bytes(16), true);
        put_nv(i, last);
        require(last.made == 1, "a healthy cluster takes no write");
    }
    for (std::size_t i = 0; i < files_.size(); ++i) {
        read_file(i, false);
        FileLedger::Write &last = files_[i].ask(fresh_bytes(20));
        put_file(i, last, 0);
        require(last.made == 1, "a healthy cluster takes no file");
    }
}

void Program::run()
{
    for (unsigned steps = 0; steps < most_steps && !choices_.over(); ++steps) {
        step(choices_.next());
    }
    come_to_rest();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/)
{
    setenv("KESTA_PLATFORM_CONF", "/nonexistent", 1);
    setenv("KESTA_PLATFORM_NV_ENDPOINTS", "127.0.0.1:11,127.0.0.1:12,127.0.0.1:13", 1);
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const int before = open_descriptors();
    {
        Program program({reinterpret_cast<const char *>(data), size});
        program.run();
    }
    require(open_descriptors() == before, "a descriptor is left open");
    return 0;
}
