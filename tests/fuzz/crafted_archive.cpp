#include "crafted_archive.h"

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <vector>

#include "contract.h"

namespace fuzz {
namespace {

using Writer = std::unique_ptr<::archive, decltype(&archive_write_free)>;

constexpr std::size_t block = 512;
constexpr std::size_t size_field = 124;
constexpr std::size_t checksum_field = 148;
constexpr std::size_t octal_digits = 6;

la_ssize_t append(::archive *, void *text, const void *bytes, size_t size)
{
    static_cast<std::string *>(text)->append(static_cast<const char *>(bytes), size);
    return static_cast<la_ssize_t>(size);
}

std::size_t octal(const std::string &digits) { return strtoul(digits.c_str(), nullptr, 8); }

void set_checksum(std::string &tar, std::size_t header)
{
    const auto field = tar.begin() + static_cast<std::ptrdiff_t>(header + checksum_field);
    std::fill_n(field, 8, ' ');
    unsigned sum = 0;
    for (std::size_t i = 0; i < block; ++i) {
        sum += static_cast<unsigned char>(tar[header + i]);
    }
    for (std::size_t digit = 0; digit < octal_digits; ++digit) {
        field[static_cast<std::ptrdiff_t>(octal_digits - 1 - digit)] =
            static_cast<char>('0' + ((sum >> (3 * digit)) & 7U));
    }
    field[octal_digits] = '\0';
}

std::vector<std::string> split(const std::string &text, char separator)
{
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);) {
        parts.push_back(part);
    }
    return parts;
}

void set_kind(archive_entry *entry, char kind, const std::string &rest)
{
    archive_entry_set_filetype(entry, kind == 'd'   ? AE_IFDIR
                                      : kind == 'l' ? AE_IFLNK
                                      : kind == 'p' ? AE_IFIFO
                                                    : AE_IFREG);
    if (kind == 'l') {
        archive_entry_copy_symlink(entry, rest.c_str());
    } else if (kind == 'h') {
        archive_entry_copy_hardlink(entry, rest.c_str());
    }
    archive_entry_set_size(entry, kind == 'f' ? static_cast<la_int64_t>(rest.size()) : 0);
}

void add_member(::archive *writer, const std::string &line)
{
    std::vector<std::string> parts = split(line, '\t');
    parts.resize(std::max<std::size_t>(parts.size(), 5));
    const char kind = parts[0].empty() ? 'f' : parts[0][0];
    const std::unique_ptr<archive_entry, decltype(&archive_entry_free)> entry(archive_entry_new(), archive_entry_free);
    archive_entry_copy_pathname(entry.get(), parts[1].c_str());
    set_kind(entry.get(), kind, parts[4]);
    archive_entry_set_perm(entry.get(), static_cast<unsigned>(octal(parts[2])) & 07777U);
    archive_entry_set_uid(entry.get(), static_cast<la_int64_t>(strtoul(parts[3].c_str(), nullptr, 10) & 0xffffU));
    archive_entry_set_mtime(entry.get(), 1000000000, 0);
    // What the format can't hold is left out.
    if (archive_write_header(writer, entry.get()) == ARCHIVE_OK && kind == 'f') {
        (void)archive_write_data(writer, parts[4].data(), parts[4].size());
    }
}

}  // namespace

std::string with_checksums(std::string tar)
{
    for (std::size_t at = 0; at + block <= tar.size();) {
        if (std::all_of(&tar[at], &tar[at] + block, [](char c) { return c == '\0'; })) {
            at += block;
            continue;
        }
        set_checksum(tar, at);
        const std::size_t size = std::min(octal(tar.substr(at + size_field, 11)), tar.size());
        at += block + (size + block - 1) / block * block;
    }
    return tar;
}

std::string tar_of_lines(const std::string &lines)
{
    std::string tar;
    const Writer writer(archive_write_new(), archive_write_free);
    archive_write_set_format_pax_restricted(writer.get());
    archive_write_set_bytes_per_block(writer.get(), block);
    require(archive_write_open(writer.get(), &tar, nullptr, append, nullptr) == ARCHIVE_OK, "no tar can be made");
    for (const std::string &line : split(lines, '\n')) {
        add_member(writer.get(), line);
    }
    (void)archive_write_close(writer.get());
    return tar;
}

std::string packed(const std::string &tar)
{
    std::string bytes;
    const Writer writer(archive_write_new(), archive_write_free);
    archive_write_set_format_raw(writer.get());
    archive_write_add_filter_bzip2(writer.get());
    archive_write_set_filter_option(writer.get(), "bzip2", "compression-level", "1");
    archive_write_set_bytes_per_block(writer.get(), 0);
    const std::unique_ptr<archive_entry, decltype(&archive_entry_free)> entry(archive_entry_new(), archive_entry_free);
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    require(archive_write_open(writer.get(), &bytes, nullptr, append, nullptr) == ARCHIVE_OK &&
                archive_write_header(writer.get(), entry.get()) == ARCHIVE_OK &&
                archive_write_data(writer.get(), tar.data(), tar.size()) == static_cast<la_ssize_t>(tar.size()) &&
                archive_write_close(writer.get()) == ARCHIVE_OK,
            "nothing can be packed");
    return bytes;
}

}  // namespace fuzz
