// Small files of a lab, read and written whole.
#pragma once

#include <filesystem>
#include <string>

namespace lab {

// Empty if it can't be read.
std::string read_file(const std::filesystem::path &path);

// Throws Error.
void write_file(const std::filesystem::path &path, const std::string &text);

}  // namespace lab
