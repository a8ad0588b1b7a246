#include "identity_archive.h"

#include <sys/stat.h>

#include "archive_members.h"
#include "failure.h"

namespace engine {
namespace {

// "0/etc/nodename": the part of controller 0. C is what all have.
bool is_of_a_part(const std::string &path)
{
    return !path.empty() && std::string("01C").find(path[0]) != std::string::npos &&
           (path.size() == 1 || path[1] == '/');
}

bool leads_out(const std::string &path) { return ("/" + path + "/").find("/../") != std::string::npos; }

// What follows the member's name in a sentence; empty: nothing is wrong with it.
std::string fault_of(const Member &member)
{
    const bool is_link = member.kind == MemberKind::link || member.kind == MemberKind::hard_link;
    if (member.kind == MemberKind::special) {
        return "is no file, folder or link";
    }
    if (member.kind == MemberKind::file && (member.mode & (S_ISUID | S_ISGID)) != 0) {
        return "runs with the rights of its owner or group";
    }
    if (is_of_a_part(member.path) && is_link) {
        return "is neither a folder nor a plain file with one name";
    }
    if (is_of_a_part(member.path) && member.path.size() == 1 && member.kind != MemberKind::folder) {
        return "is no folder";
    }
    return !is_link && leads_out(member.path) ? "leads out of it" : "";
}

}  // namespace

void check_identity_archive(const ArchiveContents &contents, const std::string &name)
{
    for_each_member(Archive{contents, name, archive_limits()}, [&name](const Member &member, const ReadMember &) {
        const std::string fault = fault_of(member);
        if (!fault.empty()) {
            throw Failure(Exit::no, "not-carried",
                          name + " can't take an identity: its member " + member.path + " " + fault + ".",
                          "Save the environment again with 'kestactl save GROUP', or carry it without that member.");
        }
    });
}

}  // namespace engine
