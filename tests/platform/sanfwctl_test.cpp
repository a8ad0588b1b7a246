#include <dlfcn.h>
#include <errno.h>
#include <sys/syscall.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>

#include "mc_logapi.h"
#include "platform_test.h"
#include "sanfwctl.h"
#include "sbacc.h"

using namespace test;

namespace {

// The platform's waits pass at once where a test wants it, and the clock has moved on then.
bool waits_pass = false;
std::int64_t passed_ns = 0;

}  // namespace

extern "C" __attribute__((visibility("default"))) int nanosleep(const struct timespec *asked, struct timespec *left)
{
    if (!waits_pass) {
        return static_cast<int>(syscall(SYS_nanosleep, asked, left));
    }
    passed_ns += asked->tv_sec * 1'000'000'000 + asked->tv_nsec;
    return 0;
}

extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, struct timespec *now)
{
    const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    if (clock == CLOCK_MONOTONIC) {
        const std::int64_t ns = now->tv_nsec + passed_ns;
        now->tv_sec += ns / 1'000'000'000;
        now->tv_nsec = ns % 1'000'000'000;
    }
    return result;
}

namespace {

int transfer(bool writes, unsigned region, std::uint64_t offset, void *buffer, std::uint64_t length)
{
    cpfw_nv_region_t number = region;
    cpfw_nv_access_t access{buffer, offset, length};
    return writes ? zKTsanfwctl_write_nv(-1, &number, &access, 1) : zKTsanfwctl_read_nv(-1, &number, &access, 1);
}

int write_nv(std::uint64_t offset, std::string bytes, unsigned region = 2)
{
    return transfer(true, region, offset, bytes.data(), bytes.size());
}

std::string read_nv(std::uint64_t offset, std::size_t size, unsigned region = 2)
{
    std::string bytes(size, '?');
    EXPECT_EQ(transfer(false, region, offset, bytes.data(), size), 0);
    return bytes;
}

constexpr std::uint64_t region_size = 32768;

}  // namespace

class Sanfwctl : public PlatformTest {};

TEST_F(Sanfwctl, RegionThatWasNeverWrittenIsZeroAndLeavesNoFile)
{
    EXPECT_EQ(read_nv(600, 64), std::string(64, '\0'));
    EXPECT_TRUE(names_in(nv()).empty());
}

TEST_F(Sanfwctl, WritesAreSeenByOtherProcesses)
{
    EXPECT_EQ(write_nv(100, "abc"), 0);
    EXPECT_EQ(in_process([] {
                  EXPECT_EQ(read_nv(99, 5), std::string("\0abc\0", 5));
                  EXPECT_EQ(write_nv(101, "X"), 0);
              }),
              0);
    EXPECT_EQ(read_nv(100, 3), "aXc");
    EXPECT_EQ(read_nv(100, 3, 1), std::string(3, '\0')) << "another region";
}

TEST_F(Sanfwctl, WholeRegionAndItsEdges)
{
    EXPECT_EQ(write_nv(0, std::string(region_size, 'w')), 0);
    EXPECT_EQ(read_nv(0, region_size), std::string(region_size, 'w'));
    EXPECT_EQ(write_nv(region_size - 1, "z"), 0);
    EXPECT_EQ(write_nv(region_size, ""), 0) << "nothing, at the end";
}

TEST_F(Sanfwctl, WhatIsOutOfRangeIsRefusedAndNothingTransferred)
{
    EXPECT_EQ(write_nv(0, "before"), 0);
    char byte[2] = {'x', 'x'};
    EXPECT_EQ(transfer(true, 2, region_size, byte, 1), -ERANGE);
    EXPECT_EQ(transfer(true, 2, region_size - 1, byte, 2), -ERANGE);
    EXPECT_EQ(transfer(true, 2, UINT64_MAX, byte, 2), -ERANGE) << "the sum wraps";
    EXPECT_EQ(transfer(true, 2, 2, byte, UINT64_MAX), -ERANGE);
    EXPECT_EQ(transfer(false, 2, region_size - 1, byte, 2), -ERANGE);
    EXPECT_EQ(byte[0], 'x');
    EXPECT_EQ(read_nv(region_size - 1, 1), std::string(1, '\0'));
}

TEST_F(Sanfwctl, UnknownRegionBadCountAndNullPointersAreRefused)
{
    char byte = 'x';
    EXPECT_EQ(transfer(true, 3, 0, &byte, 1), -ENXIO);
    EXPECT_EQ(transfer(false, 3, 0, &byte, 1), -ENXIO);
    EXPECT_EQ(transfer(false, 2, 0, nullptr, 1), -EINVAL);
    cpfw_nv_region_t region = 2;
    cpfw_nv_access_t access{&byte, 0, 1};
    for (const int count : {0, 2, -1}) {
        EXPECT_EQ(zKTsanfwctl_write_nv(-1, &region, &access, count), -EINVAL);
    }
    EXPECT_EQ(zKTsanfwctl_write_nv(-1, nullptr, &access, 1), -EINVAL);
    EXPECT_EQ(zKTsanfwctl_read_nv(-1, &region, nullptr, 1), -EINVAL);
    EXPECT_TRUE(names_in(nv()).empty());
}

TEST_F(Sanfwctl, WriterKilledBeforeTheTransferHoldsNeverWrote)
{
    EXPECT_EQ(write_nv(0, std::string(664, 'o')), 0);
    faults("nv_write_mid 1 once kill\n");  // in the middle of the journal
    EXPECT_TRUE(WIFSIGNALED(in_process([] { write_nv(0, std::string(664, 'n')); })));
    no_faults();
    EXPECT_EQ(read_nv(0, 664), std::string(664, 'o'));
    EXPECT_EQ(write_nv(0, "x"), 0) << "the lock is free";
}

TEST_F(Sanfwctl, WriterKilledInTheMiddleOfTheImageIsFinishedByTheNextProcess)
{
    for (const bool next_writes : {false, true}) {
        EXPECT_EQ(write_nv(0, std::string(664, 'o')), 0);
        faults("nv_write_mid 2 once kill\n");
        EXPECT_TRUE(WIFSIGNALED(in_process([] { write_nv(0, std::string(664, 'n')); })));
        no_faults();
        if (next_writes) {
            EXPECT_EQ(write_nv(664, "next"), 0);
        }
        EXPECT_EQ(read_nv(0, 664), std::string(664, 'n'));
    }
}

TEST_F(Sanfwctl, EveryTransferIsSeenWholeWhileWritersAreKilled)
{
    // Writers fill 664 bytes with one letter and are killed wherever they are; readers look.
    EXPECT_EQ(write_nv(0, std::string(664, 'a')), 0);
    std::mt19937 random(1);
    for (int round = 0; round < 20; ++round) {
        std::vector<pid_t> writers;
        for (char letter = 'b'; letter < 'e'; ++letter) {
            const pid_t child = fork();
            if (child == 0) {
                for (;;) {
                    write_nv(0, std::string(664, letter));
                }
            }
            writers.push_back(child);
        }
        for (int look = 0; look < 200; ++look) {
            const std::string seen = read_nv(0, 664);
            ASSERT_EQ(seen, std::string(664, seen[0])) << "a transfer was seen in halves";
            if (look == static_cast<int>(random() % 200)) {
                kill(writers[0], SIGKILL);
            }
        }
        for (const pid_t writer : writers) {
            kill(writer, SIGKILL);
            waitpid(writer, nullptr, 0);
        }
    }
}

namespace {

class WaitsPass {
public:
    WaitsPass() { waits_pass = true; }
    ~WaitsPass() { waits_pass = false; }
    WaitsPass(const WaitsPass &) = delete;
    WaitsPass &operator=(const WaitsPass &) = delete;
};

// A process that stands in the middle of a write until it is let go; then it tells the write's result
// and that of a second one.
class StuckWriter {
public:
    StuckWriter(const char *where, char letter)
    {
        fifo_ = folder() + "/fifo";
        unlink(fifo_.c_str());
        EXPECT_EQ(mkfifo(fifo_.c_str(), 0600), 0);
        write_file(folder() + "/faults", std::string(where) + " once block " + fifo_ + "\n");
        child_ = fork();
        if (child_ == 0) {
            const int first = write_nv(0, std::string(664, letter));
            _exit(first == -ESTALE && write_nv(0, std::string(664, letter)) == 0 ? 0 : 1);
        }
        gate_ = ::open(fifo_.c_str(), O_WRONLY | O_CLOEXEC);
        EXPECT_GE(gate_, 0);
        unlink((folder() + "/faults").c_str());
    }
    // Whether its first write failed because it was passed by, and the second one was done.
    bool goes_on_and_tries_again()
    {
        close(gate_);
        int status = -1;
        EXPECT_EQ(waitpid(child_, &status, 0), child_);
        return status == 0;
    }

private:
    std::string fifo_;
    pid_t child_;
    int gate_;
};

}  // namespace

TEST_F(Sanfwctl, AccessBehindAStoppedWriterFailsAfterASecondAndIsDoneAfterThree)
{
    const WaitsPass pass;
    for (const bool writes : {false, true}) {
        for (const char *where : {"nv_write_mid 1", "nv_write_mid 2"}) {
            const bool had_begun = where[strlen(where) - 1] == '2';
            ASSERT_EQ(write_nv(0, std::string(664, 'o')), 0);
            StuckWriter stuck(where, 'n');
            std::string bytes(664, '?');
            const std::int64_t before = passed_ns;
            int failures = 0;
            int result = 0;
            do {
                result = transfer(writes, 2, 664, bytes.data(), 8);
                failures += result == -ETIMEDOUT;
            } while (result == -ETIMEDOUT && failures < 10);
            EXPECT_EQ(result, 0);
            EXPECT_GE(failures, 2);
            EXPECT_LE(failures, 3);
            EXPECT_GE((passed_ns - before) / 1'000'000, 2900);
            EXPECT_LE((passed_ns - before) / 1'000'000, 4000);
            EXPECT_EQ(read_nv(0, 664), std::string(664, had_begun ? 'n' : 'o')) << where;
            EXPECT_EQ(write_nv(0, std::string(664, 'p')), 0) << "at once";
            EXPECT_EQ(read_nv(0, 664), std::string(664, 'p'));
            EXPECT_TRUE(stuck.goes_on_and_tries_again());
            EXPECT_EQ(read_nv(0, 664), std::string(664, 'n')) << "its second try";
            EXPECT_EQ(names_in(nv()).size(), 2u) << "nothing else is left there";
        }
    }
}

TEST_F(Sanfwctl, ProcessThatDiesWhileItReplacesTheFilesIsNoHarm)
{
    const WaitsPass pass;
    ASSERT_EQ(write_nv(0, std::string(664, 'o')), 0);
    write_file(nv() + "/.region2.jnl.new", "unfinished");
    write_file(nv() + "/.region2.img.new", "unfinished");
    StuckWriter stuck("nv_write_mid 2", 'n');
    int failures = 0;
    while (write_nv(700, "x") == -ETIMEDOUT && failures < 10) {
        ++failures;
    }
    EXPECT_LE(failures, 3);
    EXPECT_EQ(read_nv(0, 664), std::string(664, 'n'));
    EXPECT_EQ(read_nv(700, 1), "x");
    EXPECT_TRUE(stuck.goes_on_and_tries_again());
    EXPECT_EQ(names_in(nv()).size(), 2u);
}

// Writers are stopped and go on wherever they are, and are passed by all the time: nothing is seen in
// halves, and no write that was told done is lost.
TEST_F(Sanfwctl, WritersThatArePassedByTearAndLoseNothing)
{
    ASSERT_EQ(write_nv(0, std::string(664, 'a')), 0);
    std::vector<pid_t> writers;
    for (char letter = 'b'; letter < 'd'; ++letter) {
        const pid_t child = fork();
        if (child == 0) {
            waits_pass = true;
            const unsigned own = 1000U * static_cast<unsigned>(letter);
            for (int i = 0;; ++i) {
                write_nv(0, std::string(664, letter));
                const std::string text = std::to_string(1000000 + i);
                if (write_nv(own % 20000, text) == 0) {
                    std::string seen(7, '?');
                    while (transfer(false, 2, own % 20000, seen.data(), 7) == -ETIMEDOUT) {
                    }
                    if (seen != text) {
                        _exit(1);
                    }
                }
            }
        }
        writers.push_back(child);
    }
    const WaitsPass pass;
    std::mt19937 random(1);
    for (int round = 0; round < 30; ++round) {
        const pid_t victim = writers[random() % writers.size()];
        kill(victim, SIGSTOP);
        for (int look = 0; look < 5; ++look) {
            std::string seen(664, '?');
            if (transfer(false, 2, 0, seen.data(), 664) == 0) {
                ASSERT_EQ(seen, std::string(664, seen[0])) << "a transfer was seen in halves";
            }
        }
        kill(victim, SIGCONT);
    }
    for (const pid_t writer : writers) {
        EXPECT_EQ(waitpid(writer, nullptr, WNOHANG), 0) << "a write was lost";
        kill(writer, SIGKILL);
        waitpid(writer, nullptr, 0);
    }
}

TEST_F(Sanfwctl, ChildrenOfAProcessWithThreadsGoOn)
{
    EXPECT_EQ(write_nv(0, "image"), 0);
    faults("vrb_set 1000000 once fail\n");  // rules that are looked at, and don't apply
    std::atomic<bool> over = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&, i] {
            while (!over) {
                if (i == 0) {
                    read_nv(0, 5);
                } else {
                    int handle = -1;
                    int close_flag = 1;
                    if (sbacc_open("kesta_a", "w", &handle, &close_flag) == 0) {
                        sbacc_close(handle);
                    }
                }
                MC_OutTrace("file.cpp", 1, 1, "a line");
            }
        });
    }
    int hung = 0;
    for (int i = 0; i < 100; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(60);
            MC_OutTrace("file.cpp", 1, 1, "a child's line");
            int handle = -1;
            int close_flag = 1;
            const bool done = read_nv(0, 5) == "image" && sbacc_open("kesta_b", "w", &handle, &close_flag) == 0 &&
                              sbacc_close(handle) == 0;
            _exit(done ? 0 : 1);
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        hung += status != 0;
    }
    over = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    no_faults();
    EXPECT_EQ(hung, 0);
}

// Maps that a sanitizer makes for itself meanwhile.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KESTA_HAS_ADDRESS_SANITIZER
#endif
#endif
#ifdef KESTA_HAS_ADDRESS_SANITIZER
constexpr long of_the_sanitizer = 14;
#else
constexpr long of_the_sanitizer = 0;
#endif

TEST_F(Sanfwctl, LoadingTheLibraryAThousandTimesLeavesNothingBehind)
{
    const auto descriptors = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto maps = [] {
        const std::string text = read_file("/proc/self/maps");
        return std::count(text.begin(), text.end(), '\n');
    };
    EXPECT_EQ(in_process([&] {
                  // A copy: the program itself has the library loaded for good.
                  const std::string copy = folder() + "/libcopy.so";
                  fs::copy_file(KESTA_SANFWCTL, copy);
                  long first_descriptors = 0;
                  long first_maps = 0;
                  for (int i = 0; i < 1000; ++i) {
                      void *library = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
                      ASSERT_NE(library, nullptr) << dlerror();
                      const auto read =
                          reinterpret_cast<decltype(&zKTsanfwctl_write_nv)>(dlsym(library, "zKTsanfwctl_write_nv"));
                      cpfw_nv_region_t region = 2;
                      char byte = 'x';
                      cpfw_nv_access_t access{&byte, 0, 1};
                      ASSERT_EQ(read(-1, &region, &access, 1), 0);
                      dlclose(library);
                      if (i == 0) {
                          first_descriptors = descriptors();
                          first_maps = maps();
                      }
                  }
                  EXPECT_EQ(descriptors(), first_descriptors);
                  EXPECT_LE(maps(), first_maps + of_the_sanitizer + 2);
              }),
              0);
}

TEST_F(Sanfwctl, NothingTakesTheNumbersOfTheStandardDescriptors)
{
    EXPECT_EQ(in_process([] {
                  for (int fd = 0; fd < 3; ++fd) {
                      close(fd);
                  }
                  EXPECT_EQ(write_nv(0, "image"), 0);
                  int handle = -1;
                  int close_flag = 1;
                  EXPECT_EQ(sbacc_open("kesta_a", "w", &handle, &close_flag), 0);
                  EXPECT_EQ(sbacc_write("mirror", 6, 0, handle), 6);
                  MC_OutTrace("file.cpp", 1, 1, "a line");
                  for (int fd = 0; fd < 3; ++fd) {
                      EXPECT_EQ(fcntl(fd, F_GETFD), -1) << fd;
                      (void)!::write(fd, "printed", 7);
                  }
                  EXPECT_EQ(sbacc_close(handle), 0);
              }),
              0);
    EXPECT_EQ(read_nv(0, 8), std::string("image\0\0\0", 8));
}

TEST_F(Sanfwctl, ProgramThatClosesAllDescriptorsOrLosesTheFileGoesOn)
{
    EXPECT_EQ(write_nv(0, "one"), 0);
    EXPECT_EQ(in_process([] {
                  for (int fd = 3; fd < 64; ++fd) {
                      close(fd);
                  }
                  // Other files take the numbers.
                  const int other = ::open("/dev/null", O_RDWR);
                  EXPECT_EQ(read_nv(0, 3), "one");
                  EXPECT_EQ(write_nv(0, "two"), 0);
                  EXPECT_EQ(fcntl(other, F_GETFD), 0) << "not ours to close";
              }),
              0);
    EXPECT_EQ(read_nv(0, 3), "two");
    fs::remove_all(nv());
    fs::create_directories(nv());
    EXPECT_EQ(read_nv(0, 3), std::string(3, '\0')) << "a new store";
}

// The lock of a transfer, and its release, must not meet a file of the program's that has the number now.
TEST_F(Sanfwctl, LocksOfAProgramThatTookAnyOfOurNumbersStayItsOwn)
{
    EXPECT_EQ(write_nv(0, "one"), 0);
    for (int taken = 3; taken < 16; ++taken) {
        EXPECT_EQ(in_process([taken] {
                      EXPECT_EQ(read_nv(0, 3), "one");
                      const std::string path = nv() + "/of_the_program";
                      const int own = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
                      ASSERT_EQ(dup2(own, taken), taken);
                      ASSERT_EQ(lockf(taken, F_TLOCK, 0), 0);
                      EXPECT_EQ(read_nv(0, 3), "one");
                      EXPECT_EQ(write_nv(0, "one"), 0);
                      EXPECT_EQ(in_process([&path] {
                                    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
                                    EXPECT_EQ(lockf(fd, F_TEST, 0), -1) << "the program's lock is gone";
                                }),
                                0);
                  }),
                  0)
            << taken;
    }
}

TEST_F(Sanfwctl, FailuresOfTheStore)
{
    fs::remove_all(nv());
    EXPECT_EQ(write_nv(0, "x"), -ENOENT);
    fs::create_directories(nv());
    write_file(nv() + "/region2.img", "damaged");
    EXPECT_EQ(write_nv(0, "x"), -EIO);
    char byte;
    EXPECT_EQ(transfer(false, 2, 0, &byte, 1), -EIO);
    EXPECT_EQ(read_file(nv() + "/region2.img"), "damaged");
}

TEST_F(Sanfwctl, FaultsOnDemand)
{
    faults("# the second read, once\nnv_read 2 once fail 28\nnv_write 1 on fail\n");
    char byte;
    EXPECT_EQ(transfer(false, 2, 0, &byte, 1), 0);
    EXPECT_EQ(transfer(false, 2, 0, &byte, 1), -28);
    EXPECT_EQ(transfer(false, 2, 0, &byte, 1), 0);
    EXPECT_EQ(write_nv(0, "x"), -EIO);
    EXPECT_EQ(write_nv(0, "x"), -EIO);
    faults("nv_read 1 once fail\n");
    EXPECT_EQ(transfer(false, 2, 0, &byte, 1), -EIO) << "the counts begin anew with a new file";
    EXPECT_EQ(write_nv(0, "x"), 0);
}

TEST_F(Sanfwctl, BlockedCallWaitsForItsPipe)
{
    const std::string fifo = folder() + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    faults("nv_write 1 once block " + fifo + "\n");
    const pid_t child = fork();
    if (child == 0) {
        _exit(write_nv(0, "late") == 0 ? 0 : 1);
    }
    const int gate = ::open(fifo.c_str(), O_WRONLY);  // opens when the call has got there
    ASSERT_GE(gate, 0);
    EXPECT_EQ(read_nv(0, 4), std::string(4, '\0'));
    close(gate);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read_nv(0, 4), "late");
}

TEST_F(Sanfwctl, StatusBytesComeFromTheFile)
{
    write_file(folder() + "/status",
               "# controllers\ncont0 = 0x13\ncard0=4\ncont1 = 32\n cont3 = 0xff\ncard3 = 2\n"
               "cont2 = 300\nnonsense\ncont4 = 1\n");
    sanfw_getstatus_out plain;
    memset(&plain, 0xee, sizeof(plain));
    ASSERT_EQ(zKTsanfwctl_get_status(0, &plain), 0);
    EXPECT_EQ(plain.cont0_sts, 0x13);
    EXPECT_EQ(plain.card0_sts, 4);
    EXPECT_EQ(plain.cont1_sts, 32);
    EXPECT_EQ(plain.reserved[35], 0);
    sanfw_getstatus_ex_out extended;
    memset(&extended, 0xee, sizeof(extended));
    ASSERT_EQ(zKTsanfwctl_get_status_ex(1, &extended), 0);
    EXPECT_EQ(extended.cont_sts[3], 0xff);
    EXPECT_EQ(extended.card_sts[3], 2);
    EXPECT_EQ(extended.cont_sts[2], 0) << "no byte";
}

TEST_F(Sanfwctl, StatusFailures)
{
    sanfw_getstatus_out plain;
    sanfw_getstatus_ex_out extended;
    EXPECT_EQ(zKTsanfwctl_get_status(0, &plain), -ENOENT);
    write_file(folder() + "/status", "cont0 = 1\n");
    EXPECT_EQ(zKTsanfwctl_get_status(1, &plain), -EINVAL);
    EXPECT_EQ(zKTsanfwctl_get_status(0, nullptr), -EINVAL);
    EXPECT_EQ(zKTsanfwctl_get_status_ex(0, &extended), -EINVAL);
    EXPECT_EQ(zKTsanfwctl_get_status_ex(1, nullptr), -EINVAL);
    faults("status 1 once fail 5\n");
    EXPECT_EQ(zKTsanfwctl_get_status(0, &plain), -5);
}
