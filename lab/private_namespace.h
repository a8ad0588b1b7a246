// A set of namespaces of its own for this process, in which folders of the machine are replaced.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace lab {

// What stopped us, in one line, and what to do about it.
class Error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Bind {
    std::string source;
    std::string target;
};

// Makes the caller root of a user namespace in which it is the only user.
void enter_user_namespace();

// Moves the process into mount, host name and IPC namespaces of its own; without root, into a user
// namespace too. Mounts made from here on are seen by this process and its children only.
void enter_private_namespaces();

// Lays the files of a folder over those of another. Where the kernel can't do that, the target stays as
// it is.
void lay_over(const std::string &source, const std::string &target);

// Shows a folder as it is, on a disk that takes nothing more: what is changed in it is lost with this process.
void cover_full_disk(const std::string &folder);

// Binds every source, with the mounts below it, onto its target. All sources are taken before the
// first target is covered, so a source may lie below a target.
void bind_all(const std::vector<Bind> &binds);

}  // namespace lab
