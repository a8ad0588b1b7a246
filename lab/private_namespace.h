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

// Moves the process into mount, host name and IPC namespaces of its own; without root, into a user
// namespace too. Mounts made from here on are seen by this process and its children only.
void enter_private_namespaces();

// Lays the files of a folder over those of another. Where the kernel can't do that, the target stays as
// it is.
void lay_over(const std::string &source, const std::string &target);

// Binds every source, with the mounts below it, onto its target. All sources are taken before the
// first target is covered, so a source may lie below a target.
void bind_all(const std::vector<Bind> &binds);

}  // namespace lab
