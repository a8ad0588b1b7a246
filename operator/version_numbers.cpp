#include "version_numbers.h"

#include <limits.h>

#include <kesta/kesta.h>

#include <string>

#include "appliance_state.h"
#include "causes.h"

namespace engine {

constexpr int first_version = 1;

int version_after(int version) { return version == INT_MAX ? first_version : version + 1; }

bool is_older_version(int version, int than)
{
    const auto way = [](int from, int to) {
        return static_cast<long long>(to) - from + (to < from ? static_cast<long long>(INT_MAX) : 0);
    };
    return version != than && way(version, than) < way(than, version);
}

int latest_number(int own)
{
    const int latest = kestal_read_version_nolock(KESTA_VER_AREA_NUMBERING, own, KESTA_VERSION_BY_MODE);
    if (latest < 0) {
        fail_call("read-failed", "The latest number can't be read.", "Look at --trace 1.");
    }
    return latest;
}

int hand_out_version(int own)
{
    int next = 0;
    under_inner_lock("No number was handed out.", [&] {
        ask_both_places();
        const int latest = kestal_read_version_nolock(KESTA_VER_AREA_NUMBERING, own, KESTA_VERSION_BY_MODE);
        if (latest < 0) {
            fail_call("next-failed", "No number was handed out.", "The latest one can't be read: look at --trace 1.");
        }
        next = version_after(latest);
        ask_both_places();
        if (kestal_set_version_nolock(KESTA_VER_AREA_NUMBERING, own, next) != KESTA_OK) {
            fail_call("next-failed", "Number " + std::to_string(next) + " was not written to every place.",
                      "Look at --trace 1 for the place that failed, and let 'kestactl verify' tell what differs.");
        }
        return "Number " + std::to_string(next) + " was handed out";
    });
    return next;
}

std::optional<int> number_in_area(int area, int controller)
{
    ask_both_places();
    kesta_clear_cause();
    const int version = kestal_read_version_nolock(area, controller, KESTA_VERSION_BY_MODE);
    return version < 0 && failed_but_for_absence() ? std::nullopt : std::optional(version);
}

void set_version(int area, int version)
{
    const int own = learn_own_number();
    ask_both_places();
    if (kestal_set_version(area, own, version) != KESTA_OK) {
        fail_call("version-failed", "The versions were not recorded in every place.",
                  "The archives are whole. Look at --trace 1, then run the command again.");
    }
}

void set_flash_version(int kind, int version)
{
    if (kestal_set_flash_version_file(version, kind) != KESTA_OK) {
        fail_call("version-failed", "The version was not written to flash.",
                  "Look at --trace 1, and at the space of /etc, then run the command again.");
    }
}

}  // namespace engine
