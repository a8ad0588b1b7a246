#include "cause_words.h"

#include <errno.h>
#include <kesta/kesta.h>
#include <string.h>

#include <string_view>

#include "causes.h"
#include "failure.h"
#include "mirror.h"

namespace engine {
namespace {

// The errno of a cause, and 0 where it has none.
int error_of(const KESTA_CAUSE &cause)
{
    switch (cause.kind) {
    case KESTA_CAUSE_SYSTEM:
    case KESTA_CAUSE_MEMORY:
        return cause.number;
    case KESTA_CAUSE_PLATFORM:
        return -cause.number;
    default:
        return 0;
    }
}

const char *place_of(const KESTA_CAUSE &cause)
{
    const std::string_view function = cause.function;
    if (is_of_the_area(cause)) {
        return "The system backup area";
    }
    if (function.starts_with("kestal_non_volatile")) {
        return "NV memory";
    }
    return cause.kind == KESTA_CAUSE_PLATFORM ? "The platform" : "A file of this controller";
}

// Where a write to the system backup area failed, NV memory may have been written before.
std::string what_memory_did()
{
    const MirrorState state = read_mirror();
    std::string names;
    for (const MirroredItem &item : state.items) {
        if (item.memory && (item.disk ? item.differs() : !all_zero(*item.memory))) {  // zeros were never written
            names += (names.empty() ? "" : ", ") + item.block->name;
        }
    }
    return names.empty() ? "" : " NV memory went on alone, and has other values than the area of: " + names + ".";
}

}  // namespace

CauseWords cause_in_words()
{
    const KESTA_CAUSE cause = *kesta_last_cause();  // reading the mirror may meet another one
    const std::string place = place_of(cause);
    switch (const int error = error_of(cause)) {
    case ENOSPC:
    case EDQUOT:
        return {place + " is full (" + strerror(error) + ")." +
                    (place == "The system backup area" ? what_memory_did() : ""),
                "Make room there, then run the command again; 'kestactl nv verify' compares NV memory and the system "
                "backup area."};
    case EACCES:
    case EPERM:
        return {place + " can't be used by this user (" + strerror(error) + ").", "Run the command as root."};
    case EREMOTE:
        return {place +
                    " was refused: other machines may share its file system, and this platform is for one "
                    "machine (" +
                    strerror(error) + ").",
                "Keep it on a file system of this machine alone; the trace log names the folder and the setting."};
    case EROFS:
    case EIO:
    case ENOMEM:
        return {place + " failed: " + strerror(error) + ".", ""};
    default:
        return {};
    }
}

}  // namespace engine
