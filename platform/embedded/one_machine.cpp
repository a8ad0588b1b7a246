#include "one_machine.h"

#include <errno.h>
#include <stdint.h>
#include <sys/vfs.h>

#include "mc_logapi.h"
#include "scoped.h"
#include "settings.h"

namespace embedded {
namespace {

using namespace platform;

struct FileSystem {
    uint32_t type;
    const char *name;
};

// Of linux/magic.h, and of those who keep theirs elsewhere. GFS2 and OCFS2 can be used by one machine alone as well;
// their type doesn't say so: the setting is for that.
constexpr FileSystem shared_ones[] = {
    {0x00006969, "nfs"},   {0x0000517B, "smb"},    {0xFF534D42, "cifs"}, {0xFE534D42, "smb2"},   {0x0000564C, "ncp"},
    {0x73757245, "coda"},  {0x5346414F, "afs"},    {0x6B414653, "kafs"}, {0x00C36400, "ceph"},   {0x01161970, "gfs2"},
    {0x7461636F, "ocfs2"}, {0x0BD00BD0, "lustre"}, {0x47504653, "gpfs"}, {0x19830326, "beegfs"}, {0xAAD7AAEA, "panfs"},
    {0x20030528, "pvfs2"}, {0x61636673, "acfs"},
};

// The name of the shared file system that a folder is on, or null.
const char *shared_file_system_of(const char *folder)
{
    struct statfs status;
    if (statfs(folder, &status) != 0) {
        return nullptr;
    }
    return shared_file_system(static_cast<uint32_t>(status.f_type));  // signed, and extended, in the record
}

bool told;

}  // namespace

const char *shared_file_system(unsigned long f_type)
{
    for (const FileSystem &each : shared_ones) {
        if (each.type == f_type) {
            return each.name;
        }
    }
    return nullptr;
}

int check_one_machine(const char *folder)
{
    if (settings().allow_shared_file_system != 0) {
        return 0;
    }
    return shared_file_system_of(folder) ? -EREMOTE : 0;
}

void tell_refused(const char *key, const char *folder)
{
    const char *name = shared_file_system_of(folder);
    if (!name || __atomic_exchange_n(&told, true, __ATOMIC_RELAXED)) {
        return;
    }
    MC_OutTrace(MC_FilePathDel(__FILE__), __LINE__, 1,
                "[platform] %s %s is refused: other machines may share its file system (%s), and the embedded platform "
                "is for one machine. Move it to a file system of this machine, or set allow_shared_file_system = 1 if "
                "no other machine ever uses the folder.",
                key, folder, name);
}

}  // namespace embedded
