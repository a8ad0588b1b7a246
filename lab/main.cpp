// kesta-lab: an appliance of four controllers on one machine.
#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "appliance.h"
#include "options.h"
#include "printable.h"
#include "private_namespace.h"
#include "standard_descriptors.h"

namespace {

using engine::printable;

constexpr int exit_failed = 1;
constexpr std::uint64_t default_quota = 256 << 20;  // small enough to be filled for practice
constexpr int exit_not_runnable = 126;
constexpr int exit_not_found = 127;

std::string setting_of(const lab::Appliance &appliance, int number, const std::string &key)
{
    std::ifstream settings(appliance.controller_folder(number) / "etc/kesta/platform.conf");
    for (std::string line; std::getline(settings, line);) {
        if (line.rfind(key + " = ", 0) == 0) {
            return line.substr(key.size() + 3);
        }
    }
    return "-";
}

std::string size_of(const std::filesystem::path &file)
{
    std::error_code error;
    const auto size = std::filesystem::file_size(file, error);
    return error ? "-" : std::to_string(size);
}

void print_members(const lab::Appliance &appliance)
{
    std::cout << "\nmember   state\n";
    for (const lab::MemberState &state : appliance.members().states()) {
        std::cout << "member" << state.number << "  "
                  << (!state.pid    ? "does not run"
                      : state.hangs ? "hangs"
                      : state.leads ? "leads"
                                    : "runs")
                  << "\n";
    }
    for (int number = 0; number < lab::controllers; ++number) {
        if (!appliance.hosts().is_linked(lab::Appliance::host_of(number))) {
            std::cout << "CNT" << number << ": the link is down\n";
        }
    }
}

void print_status(const lab::Appliance &appliance)
{
    std::cout << "lab " << printable(appliance.folder().string()) << "\n"
              << "running processes: " << appliance.processes().size() << "\n\n"
              << "controller  boot mode  flash backup.tar.Z  flash accept.tar.Z  (bytes)\n";
    for (int number = 0; number < lab::controllers; ++number) {
        const auto flash = appliance.controller_folder(number) / "opt/kesta_sys/bakup";
        std::printf("%-10s  %-9s  %-18s  %s\n", ("CNT" + std::to_string(number)).c_str(),
                    printable(setting_of(appliance, number, "boot_mode")).c_str(),
                    size_of(flash / "backup.tar.Z").c_str(), size_of(flash / "accept.tar.Z").c_str());
    }
    std::fflush(stdout);
    if (appliance.hosts().exist()) {
        print_members(appliance);
        return;
    }
    std::cout << "\nsystem backup area:\n";
    const auto area = appliance.folder() / "shared/sysback";
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator(area, error)) {
        const std::string name = entry.path().filename();
        if (name[0] != '.') {
            std::cout << "  " << printable(name) << "  " << size_of(entry.path()) << " bytes\n";
        }
    }
    if (error) {
        std::cout << "  taken away (" << error.message() << ")\n";
    }
}

const lab::Members &members_of(const lab::Appliance &appliance)
{
    if (!appliance.hosts().exist()) {
        throw lab::Error("this lab has no hosts of its own: make one with kesta-lab create --hosts");
    }
    return appliance.members();
}

void set_link(const lab::Appliance &appliance, const std::string &name, bool up)
{
    const lab::Members &members = members_of(appliance);
    const bool is_member = name.rfind("member", 0) == 0;
    appliance.hosts().set_link(is_member ? "member" + std::to_string(members.number_of(name))
                                         : lab::Appliance::host_of(lab::controller_number(name)),
                               up);
}

void change_member(const lab::Appliance &appliance, const std::string &name, const std::string &change)
{
    const lab::Members &members = members_of(appliance);
    const int number = members.number_of(name);
    std::string done = "started";
    if (change == "kill") {
        members.kill(number);
        done = "killed";
    } else if (change == "stop") {
        members.stop(number);
        done = "stopped";
    } else if (!members.start(number)) {
        throw lab::Error("member " + std::to_string(number) + " runs, and does not serve: too few members run");
    }
    std::cout << "Member " << number << " " << done << "\n";
}

void set_full(const lab::Appliance &appliance, const std::string &what, bool full)
{
    if (what == "disk") {
        for (int number = 0; number < lab::controllers; ++number) {
            appliance.set_full(number, full);
        }
    } else if (what != "quota") {
        appliance.set_full(lab::controller_number(what), full);
    } else if (full) {
        members_of(appliance).fill();
    } else {
        members_of(appliance).make_room();
    }
}

// Doesn't return: the program takes this process over, and its exit code is ours.
[[noreturn]] void run_in(const lab::Appliance &appliance, const std::string &controller,
                         const std::vector<std::string> &binds, const std::vector<std::string> &command)
{
    appliance.enter(lab::controller_number(controller), binds);
    std::vector<char *> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string &word : command) {
        arguments.push_back(const_cast<char *>(word.c_str()));
    }
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    const int error = errno;
    std::cerr << "kesta-lab: can't run " << printable(command[0]) << ": " << strerror(error) << "\n";
    std::exit(error == ENOENT ? exit_not_found : exit_not_runnable);
}

std::string user_shell()
{
    const char *shell = getenv("SHELL");
    return shell && *shell ? shell : "/bin/sh";
}

// Everything behind "--" belongs to the command that is to be run, options included.
std::vector<std::string> split_command(int &argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--") == 0) {
            std::vector<std::string> command(argv + i + 1, argv + argc);
            argc = i;
            return command;
        }
    }
    return {};
}

}  // namespace

// Without memory for its options it ends, as by any other signal.
int main(int argc, char **argv)  // NOLINT(bugprone-exception-escape)
{
    kesta::open_standard_descriptors();
    (void)signal(SIGCHLD, SIG_DFL);  // ignored by a parent, it would hide how commands end
    std::vector<std::string> command = split_command(argc, argv);

    options::Program program(
        "An appliance of four controllers on one machine, each in namespaces of its own "
        "with its own /etc, /opt, /tmp, /var/run and /boot. They share NV memory and the "
        "system backup area. Nothing is written outside the lab's folder.",
        "kesta-lab", "kesta-lab " KESTA_VERSION);
    const options::Command app = program.command();
    app.require_subcommand();
    app.footer(
        "Example:\n"
        "  kesta-lab create /tmp/appliance\n"
        "  kesta-lab --dir /tmp/appliance exec CNT0 -- kestactl status\n"
        "  kesta-lab destroy /tmp/appliance");

    std::string folder;
    bool hosts = false;
    lab::Cluster cluster;
    cluster.quota = default_quota;
    std::string host;
    std::string change;
    std::string what;
    bool undo = false;
    std::string product;
    std::string platform;
    std::string option;
    std::string controller;
    std::vector<std::string> binds;
    app.add_option("--dir", option, "The lab's folder (else $KESTA_LAB, else the current folder)");

    const options::Command create = app.add_subcommand("create", "Make a lab in a new folder");
    create.add_option("DIR", folder, "The folder, new or empty").required();
    create.add_option("--product", product, "Installed tree whose programs and libraries to use (else this program's)");
    create.add_option("--platform", platform, "Platform to run on (else " KESTA_PLATFORM ")");
    const options::Option with_hosts =
        create.add_flag("--hosts", hosts,
                        "A host for each controller and for each member of an etcd cluster, in networks of their own; "
                        "the platform is " +
                            std::string(lab::cluster_platform));
    create.add_option("--members", cluster.members, "Members of the cluster").in_range(1, 5).needs(with_hosts);
    create.add_option("--quota", cluster.quota, "Bytes that each member's store takes").needs(with_hosts);
    const options::Command exec = app.add_subcommand("exec",
                                                     "Run a command on a controller; its exit code is "
                                                     "kesta-lab's");
    exec.add_option("CONTROLLER", controller, "CNT0 to CNT3").required();
    exec.add_option("--bind", binds, "Folder of the machine to keep visible at its own path");
    exec.footer(
        "The command stands behind --.\n\nExamples:\n"
        "  kesta-lab exec CNT1 -- kestactl status\n"
        "  kesta-lab exec CNT0 --bind /srv/build -- /srv/build/program");
    const options::Command shell = app.add_subcommand("shell", "Start a shell on a controller");
    shell.add_option("CONTROLLER", controller, "CNT0 to CNT3").required();
    shell.add_option("--bind", binds, "Folder of the machine to keep visible at its own path");
    const options::Command status = app.add_subcommand("status", "Show the controllers and what they share");
    const options::Command link = app.add_subcommand("link", "Pull a host's cable, or put it back");
    link.add_option("HOST", host, "CNT0 to CNT3, or member0, member1...").required();
    link.add_option("STATE", change, "down or up").required().one_of({"down", "up"});
    const options::Command member = app.add_subcommand("member", "Kill, stop or start a member of the cluster");
    member.add_option("MEMBER", host, "0, 1... or leader").required();
    member.add_option("CHANGE", change, "kill: at once. stop: it hangs. start: it goes on, or starts anew")
        .required()
        .one_of({"kill", "stop", "start"});
    const options::Command swap_board =
        app.add_subcommand("swap-board", "Replace a controller's board by one without an identity");
    swap_board.add_option("CONTROLLER", controller, "CNT0 to CNT3").required();
    const options::Command fill = app.add_subcommand("fill", "Fill a disk, or the store of the cluster");
    fill.add_option(
            "WHAT", what,
            "disk: those with the controllers' flash files; CNT0 to CNT3: that of one; quota: the members' stores")
        .required();
    fill.add_flag("--undo", undo, "Make room again");
    const options::Command cut_power =
        app.add_subcommand("cut-power", "Kill all that runs at once: of a controller, or of the whole lab");
    cut_power.add_option("CONTROLLER", controller, "CNT0 to CNT3, else everything");
    const options::Command power_on = app.add_subcommand("power-on", "Start the hosts and members that are off");
    const options::Command destroy = app.add_subcommand("destroy", "End the lab's processes and remove it");
    destroy.add_option("DIR", folder, "The lab's folder").required();

    exec.callback([&command] {
        if (command.empty()) {
            options::require("-- COMMAND");
        }
    });
    if (const auto ended = program.parse(argc, argv)) {
        return options::tell(*ended);
    }

    try {
        if (create.was_given()) {
            const auto made =
                lab::Appliance::create(folder, product, platform, hosts ? std::optional(cluster) : std::nullopt);
            std::cout << "Made a lab of four controllers in " << printable(made.folder().string()) << "\n";
        } else if (exec.was_given()) {
            run_in(lab::Appliance::find(option), controller, binds, command);
        } else if (shell.was_given()) {
            run_in(lab::Appliance::find(option), controller, binds, {user_shell()});
        } else if (status.was_given()) {
            print_status(lab::Appliance::find(option));
        } else if (link.was_given()) {
            set_link(lab::Appliance::find(option), host, change == "up");
        } else if (member.was_given()) {
            change_member(lab::Appliance::find(option), host, change);
        } else if (swap_board.was_given()) {
            lab::Appliance::find(option).swap_board(lab::controller_number(controller));
        } else if (fill.was_given()) {
            set_full(lab::Appliance::find(option), what, !undo);
        } else if (cut_power.was_given()) {
            lab::Appliance::find(option).cut_power(
                controller.empty() ? std::nullopt : std::optional(lab::controller_number(controller)));
        } else if (power_on.was_given()) {
            lab::Appliance::find(option).power_on();
        } else {
            lab::Appliance(folder).destroy();
        }
    } catch (const std::exception &error) {
        std::cerr << "kesta-lab: " << printable(error.what()) << "\n";
        return exit_failed;
    }
    return 0;
}
