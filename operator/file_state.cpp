#include "file_state.h"

namespace engine {

const char *name_of(MemberKind kind)
{
    switch (kind) {
    case MemberKind::file:
        return "file";
    case MemberKind::folder:
        return "folder";
    case MemberKind::link:
        return "link";
    case MemberKind::hard_link:
        return "second name";
    default:
        return "special file";
    }
}

}  // namespace engine
