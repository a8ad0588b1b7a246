#include "complaint.h"

#include <errno.h>
#include <string.h>

#include "mc_logapi.h"

namespace etcd {
namespace {

// What the results of this platform mean; others speak for themselves.
const char *meaning(int result)
{
    switch (result) {
    case -ETIMEDOUT:
        return "no member of the cluster answered in time";
    case -ENOSPC:
        return "the cluster has no space left";
    case -EACCES:
        return "the cluster refuses access";
    case -EINVAL:
    case -ENOTSUP:
        return "the settings can't be used";
    case -EIO:
        return "what is stored is damaged";
    default:
        return "the cluster can't be used";
    }
}

}  // namespace

bool Complaint::is_new(int result, const Cluster &cluster)
{
    // Of a transfer itself, and told by it: nothing is wrong with the cluster.
    const bool of_call =
        result == -ESTALE || result == -ENOENT || result == -EMFILE || (result == -EINVAL && !cluster.settings_wrong());
    if (result >= 0 || of_call) {
        result_ = 0;
        why_.clear();
        return false;
    }
    const std::string why = cluster.problem();
    if (result == result_ && why == why_) {
        return false;
    }
    result_ = result;
    why_ = why;
    return true;
}

void Complaint::tell(int result, const std::string &why) const
{
    MC_OutTrace(MC_FilePathDel(__FILE__), __LINE__, 1, "[platform] %s: %s (%s).", what_, meaning(result), why.c_str());
}

}  // namespace etcd
