#include <string.h>
#include <unistd.h>

#include <array>
#include <string_view>

#include "clause.h"
#include "sbacc.h"

namespace platform_check {
namespace {

constexpr const char *scratch = "kesta_platform_check";  // a file of the system backup area; it stays
// The longest names that the library has, which differ in the last character only.
constexpr const char *long_name_0 = "kesta_platform_check_long_name0";
constexpr const char *long_name_1 = "kesta_platform_check_long_name1";
static_assert(std::string_view(long_name_0).size() == 31);
constexpr std::size_t mirrored_size = 32;
constexpr std::size_t archive_size = std::size_t{3} << 20U;

class Opened {
public:
    explicit Opened(const char *mode, const char *name = scratch)
        : result_(sbacc_open(name, mode, &handle_, &close_flag_))
    {
    }
    ~Opened() { (void)close(); }
    Opened(const Opened &) = delete;
    Opened &operator=(const Opened &) = delete;

    int result() const { return result_; }
    int handle() const { return handle_; }
    int close_flag() const { return close_flag_; }
    int close()
    {
        const bool open = result_ == 0;
        result_ = -1;
        return open ? sbacc_close(handle_) : 0;
    }

private:
    int handle_ = -1;
    int close_flag_ = -1;
    int result_;
};

// No two pieces of it are alike, so that a piece in another's place is found out.
std::string bytes_of(std::size_t size, unsigned salt = 0)
{
    std::string bytes(size, '\0');
    for (std::size_t at = 0; at < size; ++at) {
        bytes[at] = static_cast<char>((at + salt) * 2654435761U >> 13U);
    }
    return bytes;
}

// As the library writes: all bytes in one call, at offset 0.
bool write_area(const std::string &bytes, const char *name = scratch)
{
    Opened file("w", name);
    return file.result() == 0 &&
           sbacc_write(bytes.data(), static_cast<unsigned>(bytes.size()), 0, file.handle()) ==
               static_cast<int>(bytes.size()) &&
           file.close() == 0;
}

// As the library reads: the size, and so many bytes in one call.
std::string read_opened(const Opened &file)
{
    const int size = file.result() == 0 ? sbacc_read_size(file.handle()) : -1;
    std::string bytes(size > 0 ? static_cast<std::size_t>(size) : 0, '?');
    const int got = size < 0 ? -1 : sbacc_read(bytes.data(), static_cast<unsigned>(bytes.size()), 0, file.handle());
    return size < 0 || got != size ? "(refused)" : bytes;
}

std::string read_area(const char *name = scratch)
{
    const Opened file("r", name);
    return read_opened(file);
}

Outcome keeps_what_is_written()
{
    // Down again too: nothing of the longer contents may be left.
    for (const std::size_t size : {4U, 16U, 32U, 100000U, 128U, 16U, 4U, 1U}) {
        const std::string bytes = bytes_of(size, static_cast<unsigned>(size));
        if (!write_area(bytes)) {
            return "a file of " + std::to_string(size) + " bytes can't be written";
        }
        if (read_area() != bytes) {
            return std::to_string(size) +
                   " bytes are not read back, with their size, as they were "
                   "written";
        }
    }
    return "";
}

Outcome keeps_empty_files()
{
    if (!write_area("something") || !write_area("")) {
        return "a file of 0 bytes can't be written";
    }
    return read_area().empty() ? "" : "a file of 0 bytes is not read as one";
}

// Bytes are told as read only if they are there.
Outcome tells_what_it_read()
{
    const std::string bytes = bytes_of(archive_size);
    if (!write_area(bytes)) {
        return "a file of " + std::to_string(archive_size) + " bytes can't be written";
    }
    const Opened file("r");
    for (std::size_t size = 64U << 10U; size <= archive_size; size *= 2) {
        std::string read(size, '?');
        const int got = sbacc_read(read.data(), static_cast<unsigned>(size), 0, file.handle());
        if (got < 0 || static_cast<std::size_t>(got) > size) {
            return "a read of " + std::to_string(size) + " bytes returns " + std::to_string(got);
        }
        if (read.compare(0, static_cast<std::size_t>(got), bytes, 0, static_cast<std::size_t>(got)) != 0) {
            return "a read says " + std::to_string(got) + " bytes that are not the file's";
        }
    }
    return "";
}

Outcome keeps_large_files()
{
    for (const std::size_t size : {std::size_t{200} << 10U, std::size_t{300} << 10U, archive_size}) {
        const std::string bytes = bytes_of(size, 1);
        if (!write_area(bytes)) {
            return "a file of " + std::to_string(size) + " bytes can't be written in one call";
        }
        if (read_area() != bytes) {
            return "a file of " + std::to_string(size) + " bytes is not read whole in one call";
        }
    }
    return "";
}

Outcome opening_keeps_contents()
{
    const std::string bytes = bytes_of(5000, 2);
    if (!write_area(bytes)) {
        return "a file can't be written";
    }
    Opened file("w");
    if (file.result() != 0) {
        return "a file that is there can't be opened for writing";
    }
    if (read_area() != bytes) {
        return "opening a file for writing changes it before anything is written";
    }
    if (file.close() != 0) {
        return "a file that was opened for writing, and not written, can't be closed";
    }
    return read_area() == bytes ? "" : "a file that was opened for writing, and not written, is not what it was";
}

// An archive slot is written, closed, and opened once more for its size.
Outcome records_sizes()
{
    for (const std::size_t size : {std::size_t{16}, std::size_t{5001}, archive_size}) {
        const std::string bytes = bytes_of(size, 3);
        if (!write_area(bytes)) {
            return "a file can't be written";
        }
        Opened file("w");
        const int result = file.result() == 0 ? sbacc_write_size(static_cast<unsigned>(size), file.handle()) : -1;
        if (result < 0) {
            return "the size of a file that was written, closed and opened again can't be recorded";
        }
        if (file.close() != 0) {
            return "a file can't be closed once its size is recorded";
        }
        const Opened again("r");
        if (again.close_flag() != 1 || sbacc_read_size(again.handle()) != static_cast<int>(size)) {
            return "the size that was recorded is not the size that is told";
        }
        if (read_opened(again) != bytes) {
            return "the contents are not what they were before the size was recorded";
        }
    }
    return "";
}

Outcome refuses_what_is_not_there()
{
    const Opened missing("r", "kesta_no_such_file");
    return missing.result() < 0 ? "" : "a file that does not exist is opened for reading";
}

Outcome tells_names_apart()
{
    if (!write_area("zero", long_name_0) || !write_area("one", long_name_1)) {
        return "a name of 31 characters is refused";
    }
    return read_area(long_name_0) == "zero" && read_area(long_name_1) == "one"
               ? ""
               : "names of 31 characters that differ in the last one are taken for the same";
}

Outcome tells_of_proper_closing()
{
    if (!write_area("closed")) {
        return "a file can't be written";
    }
    for (const char *mode : {"r", "w"}) {
        const Opened file(mode);
        if (file.close_flag() != 1) {
            return "the close flag of a file that was closed in order is not 1";
        }
    }
    return "";
}

Outcome shows_a_file_when_it_is_closed()
{
    if (!write_area("old")) {
        return "a file can't be written";
    }
    Opened file("w");
    if (sbacc_write("new", 3, 0, file.handle()) != 3) {
        return "a file can't be written";
    }
    if (read_area() != "old") {
        return "others see a file that is not closed yet";
    }
    if (file.close() != 0) {
        return "a file can't be closed";
    }
    return read_area() == "new" ? "" : "a closed file does not hold what was written";
}

Outcome survives_a_writer_that_dies()
{
    if (!write_area("old")) {
        return "a file can't be written";
    }
    (void)in_process([] {
        const Opened file("w");
        const int written = sbacc_write("new", 3, 0, file.handle());
        _exit(written == 3 ? 0 : 1);  // it is not closed
        return false;
    });
    const Opened file("r");
    if (file.result() == 0 && file.close_flag() == 1 && read_opened(file) != "old") {
        return "what a writer left that ended before it closed passes for a file in order";
    }
    return write_area("newer") && read_area() == "newer" ? "" : "nobody can write the file anew";
}

// Of other sizes too: size and contents belong together.
Outcome replaces_files_whole()
{
    const std::string longer(4096, 'A');
    const std::string shorter(1000, 'B');
    (void)write_area(longer);
    return while_another_writes(
        [&] {
            for (int i = 0; i < rounds; ++i) {
                (void)write_area(i % 2 == 0 ? shorter : longer);
            }
        },
        [&]() -> Outcome {
            const std::string seen = read_area();
            return seen == longer || seen == shorter ? ""
                                                     : "a reader saw a file that was neither the old nor the new one";
        });
}

Outcome reads_parts()
{
    if (!write_area("0123456789")) {
        return "a file can't be written";
    }
    const Opened file("r");
    std::array<char, 16> bytes{};
    if (sbacc_read(bytes.data(), 4, 3, file.handle()) != 4 || memcmp(bytes.data(), "3456", 4) != 0) {
        return "4 bytes at offset 3 are not what stands there";
    }
    return sbacc_read(bytes.data(), 8, 6, file.handle()) == 4
               ? ""
               : "a read beyond the end does not return the bytes that there are";
}

Outcome writes_parts()
{
    Opened file("w");
    if (sbacc_write("0123", 4, 0, file.handle()) != 4 || sbacc_write("4567", 4, 4, file.handle()) != 4 ||
        sbacc_write("ab", 2, 2, file.handle()) != 2 || file.close() != 0) {
        return "a part of a file can't be written";
    }
    return read_area() == "01ab4567" ? "" : "parts do not stand at the offsets that they were written to";
}

Outcome results_are_signed()
{
    std::array<char, 4> bytes{};
    const struct {
        const char *call;
        int result;
    } calls[] = {{"sbacc_read", sbacc_read(bytes.data(), 4, 0, no_handle)},
                 {"sbacc_write", sbacc_write(bytes.data(), 4, 0, no_handle)},
                 {"sbacc_read_size", sbacc_read_size(no_handle)},
                 {"sbacc_write_size", sbacc_write_size(4, no_handle)},
                 {"sbacc_close", sbacc_close(no_handle)},
                 {"sbacc_open", Opened("r", "kesta_no_such_file").result()}};
    for (const auto &call : calls) {
        if (call.result >= 0) {
            return std::string(call.call) + " returns " + std::to_string(call.result) +
                   " where it fails: 0 or more passes for success";
        }
    }
    return "";
}

Outcome serves_threads()
{
    return in_threads(12, [](int i) -> Outcome {
        const std::string name = std::string(scratch) + std::to_string(i);
        for (int round = 0; round < 20; ++round) {
            const std::string bytes(mirrored_size, static_cast<char>('a' + (i + round) % 26));
            if (!write_area(bytes, name.c_str()) || read_area(name.c_str()) != bytes) {
                return "a thread does not read what it wrote";
            }
        }
        return "";
    });
}

}  // namespace

Clauses backup_area_clauses()
{
    constexpr const char *library = "libsbacc";
    return {
        {library, "what is written is read back, with its size", keeps_what_is_written},
        {library, "a size of 0 is a size", keeps_empty_files},
        {library, "a read says no more than it has read", tells_what_it_read},
        {library, "archives are written whole and read whole, in one call", keeps_large_files},
        {library, "opening to write keeps what is there until it is written", opening_keeps_contents},
        {library, "a size can be recorded in a second opening, and the contents stay", records_sizes},
        {library, "a file that is not there is refused", refuses_what_is_not_there},
        {library, "names of 31 characters are told apart", tells_names_apart},
        {library, "the close flag tells of a proper close", tells_of_proper_closing},
        {library, "a file is seen when it is closed, and not before", shows_a_file_when_it_is_closed},
        {library, "a writer that dies leaves the old contents, or a close flag of 0", survives_a_writer_that_dies},
        {library, "a file is replaced whole", replaces_files_whole},
        {library, "parts of a file can be read", reads_parts},
        {library, "parts of a file can be written, each at its offset", writes_parts},
        {library, "failures are results below 0", results_are_signed},
        {library, "threads may work on files of their own", serves_threads},
    };
}

}  // namespace platform_check
