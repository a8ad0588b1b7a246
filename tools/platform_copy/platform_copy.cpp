// kesta-platform: moves what the controllers share from one platform to another, whole or not at all.
#include <signal.h>

#include <iostream>
#include <string>

#include "options.h"
#include "platform_state.h"
#include "printable.h"
#include "side.h"
#include "standard_descriptors.h"

namespace {

using namespace platform_copy;

constexpr const char *quiet_hint = "Stop what uses the appliance, and run the command again.";

// Nothing ends this process between the first write and the end of what undoes it; its children neither.
void hold_signals()
{
    sigset_t held;
    (void)sigemptyset(&held);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        (void)sigaddset(&held, signal);
    }
    (void)sigprocmask(SIG_BLOCK, &held, nullptr);
}

void require_free(const PlatformState &state, const Side &side)
{
    if (const std::string holder = holder_in(state); !holder.empty()) {
        throw Stopped(exit_held,
                      holder + " is held on " + side.name() +
                          ". Nothing was changed. Wait for its holder; 'kestactl lock check' tells who it is.");
    }
}

void require_room(const PlatformState &target, const PlatformState &source, const Side &to, bool replace)
{
    if (!replace && !target.is_empty()) {
        throw Stopped(exit_no, to.name() +
                                   " holds something already. Nothing was changed. Look at it with kestactl over that "
                                   "platform, and give --replace if it may go.");
    }
    for (const auto &[name, bytes] : target.files) {
        if (!bytes.empty() && !source.files.contains(name)) {
            throw Stopped(exit_no,
                          to.name() + " holds " + name +
                              ", and the source has no such file. Nothing was changed: no copy takes a file away.");
        }
    }
}

// What a platform holds after the state was written over what was there: a file is never taken away.
PlatformState over(const PlatformState &written, const PlatformState &before)
{
    PlatformState state = written;
    for (const auto &[name, bytes] : before.files) {
        state.files.try_emplace(name, "");
    }
    for (const auto &[region, bytes] : before.regions) {
        state.regions.try_emplace(region, std::string(region_size, '\0'));
    }
    return state;
}

// Why the copy can't stay; empty: it is whole.
std::string copied(const Side &from, const Side &to, const PlatformState &source, const PlatformState &before)
{
    try {
        to.write(source);
        if (to.read() != over(source, before)) {
            return to.name() + " does not hold what was written.";
        }
        if (from.read() != source) {
            return from.name() + " was changed meanwhile. " + quiet_hint;
        }
    } catch (const Stopped &stopped) {
        return stopped.what();
    }
    return "";
}

[[noreturn]] void undo(const Side &to, const PlatformState &source, const PlatformState &before, const std::string &why)
{
    std::string left;
    try {
        const PlatformState undone = over(before, source);
        to.write(undone);
        left = to.read() == undone ? "" : "it does not hold what it held before";
    } catch (const Stopped &stopped) {
        left = stopped.what();
    }
    if (left.empty()) {
        throw Stopped(exit_failed, why + " What " + to.name() + " held before is there again.");
    }
    throw Stopped(exit_failed,
                  why + " " + to.name() + " now holds a part of it: " + left +
                      " Let no controller use it, and copy again with --replace when the cause is mended.");
}

std::size_t bytes_in(const PlatformState &state)
{
    std::size_t bytes = 0;
    for (const auto &[name, file] : state.files) {
        bytes += file.size();
    }
    return bytes;
}

void copy(const Side &from, const Side &to, bool replace)
{
    const PlatformState source = from.read();
    const PlatformState before = to.read();
    if (source.is_empty()) {
        throw Stopped(exit_no, from.name() + " holds nothing. Nothing was changed.");
    }
    require_free(source, from);
    if (before == over(source, before)) {
        std::cout << to.name() << " holds all of it already.\n";
        return;
    }
    require_free(before, to);
    require_room(before, source, to, replace);
    hold_signals();
    if (const std::string why = copied(from, to, source, before); !why.empty()) {
        undo(to, source, before, why);
    }
    std::cout << "Copied " << source.regions.size() << " regions of NV memory and " << source.files.size() << " files, "
              << bytes_in(source) << " bytes, from " << from.name() << " to " << to.name()
              << ", read back and compared.\n";
}

}  // namespace

// Without memory for its options it ends, as by any other signal.
int main(int argc, char **argv)  // NOLINT(bugprone-exception-escape)
{
    kesta::open_standard_descriptors();
    (void)signal(SIGCHLD, SIG_DFL);
    (void)signal(SIGPIPE, SIG_IGN);
    if (const int code = Side::run_as_side(argc, argv); code >= 0) {
        return code;
    }
    options::Program program(
        "What the controllers share, NV memory and the system backup area, on one platform or another.",
        "kesta-platform", "kesta-platform " KESTA_VERSION);
    const options::Command command = program.command();
    command.require_subcommand();
    const options::Command copying = command.add_subcommand("copy", "Copy all of it to another platform");
    std::string from;
    std::string to;
    std::string from_settings;
    std::string to_settings;
    bool replace = false;
    copying.add_option("--from", from, "The platform that has it: embedded, etcd").required();
    copying.add_option("--to", to, "The platform that gets it").required();
    copying.add_option("--from-settings", from_settings, "Its settings file, else the one of this controller");
    copying.add_option("--to-settings", to_settings, "Its settings file, else the one of this controller");
    copying.add_flag("--replace", replace, "Write over what the other one holds");
    copying.footer(
        "Nobody may use the appliance meanwhile. It is copied whole, or what was there is there again.\n\n"
        "Exit codes: 0 copied, 1 it must not be, 2 wrong usage, 3 held by a lock, 4 a platform failed.\n\n"
        "Example:\n"
        "  kesta-platform copy --from embedded --to etcd");
    if (const auto ended = program.parse(argc, argv)) {
        return options::tell(*ended);
    }
    try {
        const Side source(from, from_settings);
        const Side target(to, to_settings);
        if (from == to && from_settings == to_settings) {
            throw Stopped(exit_usage, "Both sides are the same platform: name two, or two settings files.");
        }
        copy(source, target, replace);
        return std::cout.flush() ? 0 : exit_failed;
    } catch (const Stopped &stopped) {
        std::cerr << "kesta-platform: " << engine::printable(stopped.what()) << "\n";
        return stopped.exit_code();
    }
}
