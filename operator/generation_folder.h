// The folder of the generations: /opt/kesta_sys/bakup/generations, reached by descriptor, for root alone.
//
//   SHA256.tar.Z   an archive, whole, named by its contents
//   SHA256.json    what is known of it
//   saved.json     what is known of the last archives that were saved here
//   .unfinished*   only while something is written
//
// A file is written aside, flushed and renamed; whoever writes flushes the folder in the end. So a killed command leaves
// the old state or the new one of each file. Who changes something holds the folder's lock meanwhile; who reads shares
// it.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "archive_contents.h"
#include "archive_places.h"
#include "beneath.h"
#include "failure.h"
#include "kesta/paths.h"

namespace engine {

inline constexpr const char *generations_name = generations_folder + sizeof(KESTA_FLASH_DIRECTORY) - 1;
inline constexpr const char *archive_suffix = ".tar.Z";
inline constexpr const char *entry_suffix = ".json";
inline constexpr const char *saved_name = "saved.json";

std::string archive_name(const std::string &sha256);
std::string entry_name(const std::string &sha256);

// The disk is full.
class NoRoom : public Failure {
public:
    explicit NoRoom(const std::string &path);
};

class GenerationFolder {
public:
    enum class Purpose { reading, changing };

    // For changing it is made where it is missing. Waits for whoever holds its lock, but not for ever. Throws Failure.
    GenerationFolder(const std::string &parent, Purpose purpose);

    // Reading: false where there is none yet.
    bool is_there() const { return static_cast<bool>(folder_); }
    std::string path_of(const std::string &name) const { return path_ + "/" + name; }

    // Names that begin with 64 hexadecimal digits and end so; without that end.
    std::vector<std::string> sums_with(const std::string &suffix) const;

    // Nothing: there is no such file. Throw Failure.
    std::optional<struct stat> status_of(const std::string &name) const;
    std::optional<ArchiveContents> contents(const std::string &name) const;
    std::optional<std::string> read(const std::string &name) const;
    std::optional<std::string> checksum_of(const std::string &name) const;

    // The name lasts once the folder is flushed. Throws NoRoom, or Failure.
    void write(const std::string &name, std::string_view bytes) const;
    // The same of an archive; what throws while it is read leaves nothing.
    void write(const std::string &name, const ArchiveContents &contents) const;

    // Gives an open file of the same file system this name as well, and flushes it. False where that can't be done.
    bool link(const Descriptor &file, const std::string &name) const;

    // Has the name a file of its own again, of root's only, which no other name leads to. Throws like write.
    void make_own(const std::string &name) const;

    void remove(const std::string &name) const;
    void flush() const;

    // What a killed command left half written.
    void remove_unfinished() const;

private:
    Descriptor open(const std::string &name) const;

    std::string path_;
    Descriptor folder_;
};

}  // namespace engine
