// Files that are read and replaced whole. What is written survives a power cut once the call has returned.
// Only plain files are read and replaced: a link, a FIFO, a device or a folder in their place is refused, since
// somebody else may have put it there.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "beneath.h"

namespace engine {

// What a failed call did not do to a file, by errno. Throws Failure.
[[noreturn]] void fail_file(const std::string &path, const std::string &what);

// All of it, however many pieces the system takes it in. False, with errno: not all of it was written.
bool write_all(int fd, std::string_view bytes);

// Whether nothing has this name. Throws Failure: that can't be told, so it may be there.
bool is_absent(const std::string &path);

// Opens a plain file for reading; without a descriptor it says why in errno. Throws Failure: it is no plain file.
Descriptor open_plain_file(const std::string &path);

std::string read_whole_file(const std::string &path);

// The text of settings, also where root has put a link; empty: there are none. Throws Failure: they can't be read, so
// what they say is not known, or it is no plain file.
std::string read_settings(const std::string &path);

// Make a file, or the names in a folder, reach the disk. Throw Failure.
void flush_file(const std::string &path);
void flush_folder(const std::string &path);

// Puts a finished and flushed file in the place of another one, and makes that last. Throws Failure.
void publish_file(const std::string &finished, const std::string &path);

// Put a copy of a file, or a text, in the place of a file: it is written aside, as PATH.new, flushed, and
// published. For the appliance's own folders. Throw Failure.
void copy_file_whole(const std::string &from, const std::string &to);
void write_file_whole(const std::string &path, std::string_view text);
// The same of pieces, of which an empty one is the last; what throws while they are asked for leaves the file as it was.
void write_file_whole(const std::string &path, const std::function<std::string_view()> &next);

// A file that an operator named, anywhere: written under a name that nobody could foresee, by its descriptor, and
// put in its place when it is whole. Nothing is left if it isn't. The functions throw Failure.
class ExportedFile {
public:
    explicit ExportedFile(const std::string &path);
    ~ExportedFile();
    ExportedFile(const ExportedFile &) = delete;
    ExportedFile &operator=(const ExportedFile &) = delete;

    // Where another function can open the same file for writing.
    std::string writable_path() const;
    void write(const std::string &text) const;
    void publish();

private:
    const std::string path_;
    std::string temporary_;
    int fd_;
    bool published_ = false;
};

// Best effort: what matters is told otherwise.
void remove_quietly(const std::string &path);

}  // namespace engine
