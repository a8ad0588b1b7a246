#include "lock_options.h"

#include <kesta/kesta.h>

#include <climits>

namespace kestactl {

void add_type_options(const Command &command, int &type, std::string &group)
{
    command.add_option("--type", type, "1 exclusive, 2 shared with others of type 2 taken together, 3 exclusive")
        .in_range(KESTA_LOCK_TYPE1, KESTA_LOCK_TYPE3)
        .option_text("1|2|3");
    command.add_option("--group", group, "Group to name as the one that is worked on");
}

void add_lock_wait_option(const Command &command, int &wait)
{
    command.add_option("--wait", wait, "Seconds to wait for it; progress goes to stderr").in_range(0, INT_MAX);
}

}  // namespace kestactl
