#include "compared_sides.h"

#include "appliance_state.h"
#include "archive_contents.h"
#include "history.h"
#include "storage_places.h"

namespace engine {
namespace {

ComparedSide side_of_slot(const std::string &side, const std::string &slot)
{
    return {side, Archive{read_slot(slot), "Slot " + slot, archive_limits()}};
}

}  // namespace

ComparedSide side_named(const std::string &name)
{
    if (name == live_side) {
        return {name};
    }
    if (name == "backup") {
        return side_of_slot(name, require_slot(backup_slot(), "backup"));
    }
    if (name == "accept") {
        return side_of_slot(name, require_slot(accept_slot(), "accept"));
    }
    const Generation generation = find_generation(name);
    const std::string path = path_of_generation(generation.sha256);
    const std::string called = "generation " + generation.sha256.substr(0, 12);
    return {name,
            Archive{contents_known_as(contents_of_path(path), generation.sha256, called), called, archive_limits()}};
}

}  // namespace engine
