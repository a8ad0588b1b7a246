#include "hosts.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "child_program.h"
#include "private_namespace.h"
#include "text_file.h"

namespace lab {
namespace {

namespace fs = std::filesystem;

constexpr const char *bridge = "bridge";

[[noreturn]] void fail(const std::string &what)
{
    const int error = errno;
    throw Error(what + ": " + strerror(error));
}

void ip(const std::vector<std::string> &words)
{
    std::vector<std::string> command{"ip"};
    command.insert(command.end(), words.begin(), words.end());
    if (const int status = run_program(command, Shown::all); status != 0) {
        std::string line;
        for (const std::string &word : command) {
            line += (line.empty() ? "" : " ") + word;
        }
        throw Error("can't make the hosts' network: " + line + " failed" +
                    (status == program_is_missing ? ", there is no ip: install iproute2" : ""));
    }
}

std::string descriptor_of(int fd) { return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd); }

// A network that nobody is in but this process, which goes on to the next one; the descriptor keeps it.
int new_network()
{
    if (unshare(CLONE_NEWNET) != 0) {
        fail("can't make a network namespace");
    }
    const int fd = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        fail("can't keep a network namespace");
    }
    return fd;
}

void go_into(int network)
{
    if (setns(network, CLONE_NEWNET) != 0) {
        fail("can't enter a network namespace");
    }
}

// Makes all networks, and says in the keeper's file which descriptor holds which.
void make_networks(const std::vector<Host> &hosts, int file)
{
    if (geteuid() != 0) {
        enter_user_namespace();
    }
    const int hub = new_network();
    ip({"link", "add", bridge, "type", "bridge"});
    ip({"link", "set", bridge, "up"});
    std::string lines = std::string(bridge) + " " + std::to_string(hub) + "\n";
    for (const Host &host : hosts) {
        const int own = new_network();
        lines += host.name + " " + std::to_string(own) + "\n";
        ip({"link", "set", "lo", "up"});
        ip({"link", "add", "eth0", "type", "veth", "peer", "name", host.name});
        ip({"link", "set", host.name, "netns", descriptor_of(hub)});
        ip({"addr", "add", host.address + "/24", "dev", "eth0"});
        ip({"link", "set", "eth0", "up"});
        go_into(hub);
        ip({"link", "set", host.name, "master", bridge, "up"});
    }
    if (ftruncate(file, 0) != 0 || pwrite(file, lines.data(), lines.size(), 0) != static_cast<ssize_t>(lines.size())) {
        fail("can't write the hosts' file");
    }
}

void detach_from_terminal()
{
    (void)setsid();
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int fd = 0; fd < 3; ++fd) {
        (void)dup2(null, fd);
    }
}

// Never returns. The lock on the file lasts as long as the keeper, and tells others who it is.
[[noreturn]] void keep(const std::vector<Host> &hosts, const fs::path &path, int told)
{
    std::string problem;
    try {
        const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        struct flock lock {};
        lock.l_type = F_WRLCK;
        if (file < 0 || fcntl(file, F_SETLK, &lock) != 0) {
            fail("can't lock " + path.string());
        }
        (void)prctl(PR_SET_NAME, "kesta-lab-hosts");
        make_networks(hosts, file);
        (void)prctl(PR_SET_DUMPABLE, 1);  // others reach the networks through /proc
        detach_from_terminal();
        if (chdir("/") != 0) {
            fail("can't change to /");
        }
    } catch (const std::exception &error) {
        problem = error.what();
    }
    if (!problem.empty()) {
        (void)!write(told, problem.data(), problem.size());
        _exit(1);
    }
    (void)!write(told, "\n", 1);
    (void)close(told);
    for (;;) {
        (void)pause();
    }
}

}  // namespace

void Hosts::start(const std::vector<Host> &hosts) const
{
    fs::create_directories(folder_);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        fail("can't make a pipe");
    }
    const pid_t pid = fork();
    if (pid < 0) {
        fail("can't start the hosts");
    }
    if (pid == 0) {
        (void)close(ends[0]);
        keep(hosts, keeper_file(), ends[1]);
    }
    (void)close(ends[1]);
    std::string told;
    char buffer[512];
    for (ssize_t got; (got = read(ends[0], buffer, sizeof(buffer))) > 0 || (got < 0 && errno == EINTR);) {
        told.append(buffer, got > 0 ? static_cast<std::size_t>(got) : 0);
    }
    (void)close(ends[0]);
    if (told != "\n") {
        (void)waitpid(pid, nullptr, 0);
        throw Error(told.empty() ? "the hosts ended as they were started" : told);
    }
}

std::optional<int> Hosts::keeper() const
{
    const int file = open(keeper_file().c_str(), O_RDWR | O_CLOEXEC);
    if (file < 0) {
        return std::nullopt;
    }
    struct flock lock {};
    lock.l_type = F_WRLCK;
    const bool asked = fcntl(file, F_GETLK, &lock) == 0;
    (void)close(file);
    return asked && lock.l_type != F_UNLCK ? std::optional<int>(lock.l_pid) : std::nullopt;
}

void Hosts::enter_network(const std::string &name) const
{
    const std::optional<int> pid = keeper();
    if (!pid) {
        throw Error("the hosts of this lab are off: switch them on with kesta-lab power-on");
    }
    const std::string process = "/proc/" + std::to_string(*pid);
    if (geteuid() != 0) {
        const int users = open((process + "/ns/user").c_str(), O_RDONLY | O_CLOEXEC);
        if (users < 0 || setns(users, CLONE_NEWUSER) != 0) {
            fail("can't enter the hosts' user namespace");
        }
        (void)close(users);
    }
    std::ifstream lines(keeper_file());
    std::string host;
    for (int number; lines >> host >> number;) {
        if (host != name) {
            continue;
        }
        const int network = open((process + "/fd/" + std::to_string(number)).c_str(), O_RDONLY | O_CLOEXEC);
        if (network < 0) {
            fail("can't open the network of " + name);
        }
        go_into(network);
        (void)close(network);
        return;
    }
    throw Error("there is no host " + name + " in this lab");
}

void Hosts::enter(const std::string &host) const { enter_network(host); }

void Hosts::set_link(const std::string &host, bool up) const
{
    if (host == bridge) {
        throw Error("the bridge has no link of its own: name a controller or a member");
    }
    const fs::path pulled = folder_ / (host + ".down");
    if (up) {
        fs::remove(pulled);
    }
    in_own_process([&] {
        enter_network(bridge);
        ip({"link", "set", host, up ? "up" : "down"});
    });
    if (!up) {
        write_file(pulled, "");
    }
}

bool Hosts::is_linked(const std::string &host) const { return !fs::exists(folder_ / (host + ".down")); }

}  // namespace lab
