// Texts that lead to the archives that move between the folders, and the modes of these.
#pragma once

#include <stdio.h>
#include <string.h>

#include <array>

#include "formed_text.h"
#include "kesta/paths.h"
#include "kesta/shell_word.h"

namespace kesta {

inline constexpr int new_archive_mode = 0600;
inline constexpr int finished_archive_mode = 0644;

using Path = std::array<char, 256>;
using CommandLine = std::array<char, 512>;

inline Path path_of(const char *directory, const char *file)
{
    Path path{};
    (void)form(path, "%s%s", directory, file);
    return path;
}

// A group's name becomes one folder name; a longer one fits no folder, and no command line.
inline constexpr std::size_t longest_group_folder = 255;

// Whether a group's folder can stand in a command line.
inline bool is_group_folder(const char *group)
{
    return group && strnlen(group, longest_group_folder + 1) <= longest_group_folder && kesta_is_shell_word(group);
}

}  // namespace kesta
