// The machine's folders, replaced for this process by empty ones of its own.
#pragma once

#include <string>

namespace test {

// Enters private namespaces in which /etc, /opt, /run, /tmp and /usr/sbin belong to the test. Ends
// the process with a message where the machine doesn't allow it.
void enter_private_root();

// Makes the appliance's folders anew and empty.
void clear_appliance_folders();

void write_file(const std::string &path, const std::string &bytes);
std::string read_file(const std::string &path);
bool exists(const std::string &path);
unsigned mode_of(const std::string &path);

// A small file system of its own over a folder, for a full or a read-only disk.
int mount_small(const std::string &folder, int bytes, bool read_only = false);
void unmount(const std::string &folder);

}  // namespace test
