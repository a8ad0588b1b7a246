// Files that are read and replaced whole. What is written survives a power cut once the call has returned.
#pragma once

#include <string>

namespace kestactl {

// What a failed call did not do to a file, by errno. Throws Failure.
[[noreturn]] void fail_file(const std::string &path, const std::string &what);

std::string read_whole_file(const std::string &path);

// Make a file, or the names in a folder, reach the disk. Throw Failure.
void flush_file(const std::string &path);
void flush_folder(const std::string &path);

// Puts a finished and flushed file in the place of another one, and makes that last. Throws Failure.
void publish_file(const std::string &finished, const std::string &path);

// Put a copy of a file, or a text, in the place of a file: it is written aside, flushed, and published.
// Throw Failure.
void copy_file_whole(const std::string &from, const std::string &to);
void write_file_whole(const std::string &path, const std::string &text);

// Best effort: what matters is told otherwise.
void remove_quietly(const std::string &path);

}  // namespace kestactl
