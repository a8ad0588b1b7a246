// What a controller of a lab needs of the platform that it runs on: programs, folders, files. A platform says it in a
// file, NAME.recipe, one thing a line; "#" begins a comment, and a file's lines follow it, each behind "| ".
//
//   sbin PROGRAM          found at /usr/sbin
//   product PROGRAM       found at /opt/kesta_sys/sbin
//   shared-folder PATH    one for all controllers, below @SHARED@
//   shared-file PATH      the same, with the lines that follow
//   own-folder PATH       one for each controller, below its root
//   own-file PATH         the same, with the lines that follow
//
// In the lines stand for each controller: @NUMBER@, @COUNT@, @OTHER@ (the one that it distributes to), @ADDRESS@,
// @OTHER_ADDRESS@, @CLUSTER@ (the settings that name the members of a lab with hosts); and @PLATFORM@ and @SHARED@, where a controller sees its own part of the platform and the shared one.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace lab {

using Variables = std::map<std::string, std::string>;

struct RecipeFile {
    std::string path;
    std::string text;
};

struct Recipe {
    std::vector<std::string> sbin_programs;
    std::vector<std::string> product_programs;
    std::vector<std::string> shared_folders;
    std::vector<std::string> own_folders;
    std::vector<RecipeFile> shared_files;
    std::vector<RecipeFile> own_files;
};

// Throws Error with the line where the file can't be read, or says something else.
Recipe read_recipe(const std::filesystem::path &file);

// A text with its variables filled in. Throws Error for one that is not there.
std::string filled_in(const std::string &text, const Variables &variables);

}  // namespace lab
