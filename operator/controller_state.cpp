#include "controller_state.h"

#include <kesta/kesta.h>
#include <sys/stat.h>
#include <time.h>

#include <array>
#include <functional>

#include "appliance_state.h"
#include "archive_places.h"
#include "generation_folder.h"
#include "kesta/paths.h"
#include "leftovers.h"
#include "storage_places.h"
#include "unfinished_restore.h"

namespace engine {
namespace {

class Asking {
public:
    explicit Asking(ControllerState &state) : state_(state) {}

    void ask(const char *what, const std::function<void()> &question)
    {
        try {
            question();
        } catch (const Failure &failure) {
            state_.unanswered.push_back(std::string(what) + ": " + failure.what());
        }
    }

private:
    ControllerState &state_;
};

void look_at_flash(ControllerState &state)
{
    for (const StoragePlace place : {StoragePlace::backup_on_flash, StoragePlace::accept_on_flash}) {
        struct stat status {};
        KeptArchive archive{address_of(place)};
        if (stat(path_of(place), &status) == 0) {
            archive.is_there = true;
            archive.bytes = static_cast<std::uint64_t>(status.st_size);
            archive.modified = status.st_mtime;
        }
        state.archives.push_back(archive);
    }
}

void count_generations(ControllerState &state)
{
    const GenerationFolder folder(KESTA_FLASH_DIRECTORY, GenerationFolder::Purpose::reading);
    for (const std::string &sum : folder.sums_with(archive_suffix)) {
        if (const auto status = folder.status_of(archive_name(sum))) {
            ++state.generations;
            state.generation_bytes += static_cast<std::uint64_t>(status->st_size);
        }
    }
}

void look_at_changes(ControllerState &state)
{
    for (const Change &change : changes()) {
        state.last_change = change;
        if (change.verb == "save") {
            state.last_save = change;
        }
    }
}

std::vector<InnerLockHolder> inner_lock_holders()
{
    std::array<KESTA_INNERLOCK_BUF, KESTA_CONTROLLERS> slots{};
    const int result = kestal_lockcheck_innerlock(0, slots.data(), nullptr, nullptr);
    if (result != KESTA_OK && result != KESTA_ERR_INNERLOCK_LOCKED) {
        fail_call("read-failed", "The inner lock can't be read.", "Look at --trace 1.");
    }
    std::vector<InnerLockHolder> holders;
    for (std::size_t i = 0; i < slots.size(); ++i) {
        if (slots[i].status != 0) {
            holders.push_back({static_cast<int>(i), slots[i].timeout});
        }
    }
    return holders;
}

}  // namespace

ControllerState controller_state()
{
    ControllerState state;
    state.now = time(nullptr);
    Asking asking(state);
    asking.ask("number", [&] { state.controller = learn_own_number(); });
    asking.ask("slots and versions", [&] { state.names = names_in_force(); });
    look_at_flash(state);
    asking.ask("generations", [&] { count_generations(state); });
    asking.ask("changes", [&] { look_at_changes(state); });
    asking.ask("command locks", [&] { state.command_locks = read_lock_state().held; });
    asking.ask("inner lock", [&] { state.inner_lock = inner_lock_holders(); });
    asking.ask("leftovers", [&] { state.leftovers = leftover_paths(); });
    asking.ask("unfinished restore", [&] { state.restore_is_unfinished = unfinished_restore().has_value(); });
    return state;
}

ControllerState verified_state()
{
    ControllerState state = controller_state();
    state.drift = find_drift();
    Asking(state).ask("verify", [&] { state.findings = find_all(); });
    return state;
}

}  // namespace engine
