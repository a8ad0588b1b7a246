#include "restore_source.h"

#include <kesta/kesta.h>

#include "appliance_state.h"
#include "archive_places.h"
#include "environment_archive.h"
#include "history.h"
#include "names.h"
#include "storage_places.h"

namespace engine {

RestoreSource named_source(const std::string &from)
{
    const std::string backup = backup_slot();
    const std::string accept = accept_slot();
    RestoreSource saved{"backup", backup, flash_backup, KESTA_VER_AREA_BACKUP};
    RestoreSource accepted{"accept", accept, flash_accept, KESTA_VER_AREA_ACCEPT};
    if (from == "backup" || (is_slot(from) && from == backup)) {
        (void)require_slot(backup, "backup");
        return saved;
    }
    if (from == "accept" || (is_slot(from) && from == accept)) {
        (void)require_slot(accept, "accept");
        return accepted;
    }
    throw Failure(Exit::no, "slot-not-in-use", from + " is neither the backup nor the accept slot.",
                  "See 'kestactl slot show'; 'kestactl slot switch' names other ones.");
}

RestoreSource source_of_generation(const std::string &name)
{
    const Generation generation = find_generation(name);
    return {address_of(generation), "", nullptr, 0, generation};
}

ArchiveContents contents_of(const RestoreSource &source)
{
    if (!source.generation) {
        return read_slot(source.slot);
    }
    const std::string &sum = source.generation->sha256;
    return contents_known_as(contents_of_path(path_of_generation(sum)), sum, "The generation");
}

int version_of(const RestoreSource &source)
{
    if (source.generation) {
        return source.generation->version;
    }
    const int version = kestal_read_version(source.version_area, learn_own_number(), KESTA_VERSION_BY_MODE);
    if (version < 0) {
        fail_call("version-failed", "The version of the " + source.side + " can't be read.",
                  "Look at --trace 1, then run the command again.");
    }
    return version;
}

}  // namespace engine
