// /usr/sbin as a controller sees it.
#pragma once

#include <filesystem>
#include <utility>
#include <vector>

namespace lab {

// Fills the folder sbin with a link for every program of the machine's /usr/sbin, which will be seen
// at host_sbin, and with links for what is provided: a name and where it leads. Where the machine
// has no /usr/sbin/tar, which command lines name, one is provided too.
void make_sbin(const std::filesystem::path &sbin, const std::filesystem::path &host_sbin,
               const std::vector<std::pair<std::string, std::filesystem::path>> &provided);

}  // namespace lab
