#include "scratch_root.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <iostream>

#include "contract.h"
#include "private_namespace.h"

namespace fuzz {
namespace {

constexpr const char *place = "/mnt";

int outer_root = -1;
int outer_folder = -1;
bool inside = false;

void leave()
{
    if (inside) {
        inside = false;
        require(fchdir(outer_root) == 0 && chroot(".") == 0 && fchdir(outer_folder) == 0,
                "the scratch root can't be left");
    }
}

}  // namespace

void make_scratch_root(Proc proc)
{
    try {
        lab::enter_private_namespaces();
    } catch (const std::exception &error) {
        std::cerr << "This needs a root of its own: " << error.what() << "\n";
        _exit(1);
    }
    umask(022);
    before_end = leave;
    std::set_terminate([] {  // an exception that nobody catches: the input is kept outside
        leave();
        std::abort();
    });
    outer_folder = open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    outer_root = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
    require(outer_root >= 0 && outer_folder >= 0 && mount("tmpfs", place, "tmpfs", 0, "mode=0755,size=64m") == 0,
            "a root in memory can't be mounted");
    if (proc == Proc::lent) {
        require(mkdir("/mnt/proc", 0755) == 0 && mount("/proc", "/mnt/proc", nullptr, MS_BIND | MS_REC, nullptr) == 0,
                "/proc can't be lent");
    }
}

Visit::Visit()
{
    inside = true;
    require(chroot(place) == 0 && chdir("/") == 0, "the scratch root can't be entered");
}

Visit::~Visit() { leave(); }

int next_descriptor()
{
    const int fd = fcntl(outer_root, F_DUPFD_CLOEXEC, 3);
    close(fd);
    return fd;
}

}  // namespace fuzz

// A sanitizer has found something: the input is kept outside.
extern "C" void __asan_on_error() { fuzz::leave(); }
extern "C" void __ubsan_on_report() { fuzz::leave(); }
