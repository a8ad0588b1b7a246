// Which folder is a lab, and whether what lies in it may be run: programs of a lab run as who enters it.
#pragma once

#include <filesystem>

namespace lab {

// The controller that a process is in.
inline constexpr const char *controller_variable = "KESTA_LAB_CONTROLLER";
bool is_inside();

// Whether nobody but this user and root can have put the thing there.
bool is_trusted(const std::filesystem::path &path);

// Whether it may be a lab: its marker is read only when that is known for our own. A FIFO would be waited for.
bool has_marker(const std::filesystem::path &folder);

// Makes a lab of a folder, and refuses one that is none or that somebody else may have made. Throw Error.
void set_marker(const std::filesystem::path &folder);
void require_lab(const std::filesystem::path &folder);

}  // namespace lab
