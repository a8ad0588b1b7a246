#include "private_namespace.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace lab {
namespace {

[[noreturn]] void fail(const std::string &what, int error) { throw Error(what + ": " + strerror(error)); }

void write_text(const char *path, const std::string &text)
{
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        fail(std::string("can't open ") + path, errno);
    }
    const ssize_t written = write(fd, text.data(), text.size());
    const int error = errno;
    (void)close(fd);
    if (written != static_cast<ssize_t>(text.size())) {
        fail(std::string("can't write ") + path, error);
    }
}

// As the options of an overlay want it.
std::string escaped(const std::string &path)
{
    std::string text;
    for (const char c : path) {
        text += c == ':' || c == ',' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    }
    return text;
}

// A bind mount that is attached nowhere yet: it keeps the tree under source at hand.
int detached_copy(const std::string &source)
{
    const int fd = open_tree(AT_FDCWD, source.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE);
    if (fd < 0) {
        fail("can't take " + source, errno);
    }
    return fd;
}

}  // namespace

void enter_user_namespace()
{
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (unshare(CLONE_NEWUSER) != 0) {
        throw Error(std::string("this needs root, or a kernel that allows user namespaces (") + strerror(errno) +
                    "): run it with sudo, or set user.max_user_namespaces and "
                    "kernel.unprivileged_userns_clone with sysctl");
    }
    write_text("/proc/self/setgroups", "deny");
    write_text("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    write_text("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

void enter_private_namespaces()
{
    if (geteuid() != 0) {
        enter_user_namespace();
    }
    if (unshare(CLONE_NEWNS | CLONE_NEWUTS | CLONE_NEWIPC) != 0) {
        throw Error(std::string("can't make namespaces (") + strerror(errno) +
                    "): this needs root with CAP_SYS_ADMIN, or user namespaces");
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        fail("can't make the mounts private", errno);
    }
}

void cover_full_disk(const std::string &folder)
{
    // Above it lies a small disk, filled: nothing can be changed without room there.
    const char *const above = "/mnt";
    if (mount("tmpfs", above, "tmpfs", 0, "size=64k,mode=0700") != 0) {
        fail("can't make a small disk", errno);
    }
    const std::string upper = std::string(above) + "/upper";
    const std::string work = std::string(above) + "/work";
    if (mkdir(upper.c_str(), 0755) != 0 || mkdir(work.c_str(), 0755) != 0) {
        fail("can't make a small disk", errno);
    }
    const std::string options = "lowerdir=" + escaped(folder) + ",upperdir=" + upper + ",workdir=" + work;
    if (mount("overlay", folder.c_str(), "overlay", 0, options.c_str()) != 0) {
        fail("can't lay a full disk over " + folder, errno);
    }
    const int filler = open((std::string(above) + "/filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const char zeros[4096] = {};
    while (filler >= 0 && write(filler, zeros, sizeof(zeros)) > 0) {
    }
    (void)close(filler);
}

void lay_over(const std::string &source, const std::string &target)
{
    const std::string folders = "lowerdir=" + escaped(source) + ":" + target;
    // A kernel without overlays: the stand-ins are missing then, and nothing else.
    (void)mount("overlay", target.c_str(), "overlay", MS_RDONLY, folders.c_str());
}

void bind_all(const std::vector<Bind> &binds)
{
    std::vector<int> trees;
    trees.reserve(binds.size());
    for (const Bind &bind : binds) {
        trees.push_back(detached_copy(bind.source));
    }
    for (std::size_t i = 0; i < binds.size(); ++i) {
        if (move_mount(trees[i], "", AT_FDCWD, binds[i].target.c_str(), MOVE_MOUNT_F_EMPTY_PATH) != 0) {
            fail("can't bind " + binds[i].source + " onto " + binds[i].target, errno);
        }
        (void)close(trees[i]);
    }
}

}  // namespace lab
