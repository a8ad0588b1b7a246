// The embedded platform is for one machine. NV memory is a shared mapping, guarded by record locks and by process
// numbers: what one machine has mapped, another one does not see change, and both may hold the same lock.
#pragma once

namespace embedded {

// The name of a file system that other machines may have mounted too ("nfs"), by statfs' f_type; null for every
// other one, and for those that can't be told: behind FUSE, virtiofs and 9p may be a folder of this machine as well.
const char *shared_file_system(unsigned long f_type);

// 0 if a folder may hold what the controllers share. -EREMOTE: it is on such a file system, and the settings don't
// allow it. A folder that can't be looked at passes: whoever opens a file in it meets the reason.
int check_one_machine(const char *folder);

// Traces such a refusal, once in a process. key: the setting that names the folder. Takes the trace log's mutex, so it
// is called with none of the platform's held: a fork takes them in any order.
void tell_refused(const char *key, const char *folder);

}  // namespace embedded
