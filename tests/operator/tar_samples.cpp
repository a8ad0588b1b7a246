#include "tar_samples.h"

#include <archive.h>
#include <archive_entry.h>

#include <memory>

namespace test {
namespace {

using Writer = std::unique_ptr<::archive, decltype(&archive_write_free)>;
using Entry = std::unique_ptr<archive_entry, decltype(&archive_entry_free)>;

// With the header of one file in a format that needs one.
std::string written(int (*add_filter)(::archive *), int (*set_format)(::archive *), const std::string &name,
                    const std::string &contents, const std::map<std::size_t, std::string> &parts = {})
{
    std::string result(contents.size() * 2 + (64 << 10), '\0');
    std::size_t used = 0;
    const Writer writer(archive_write_new(), archive_write_free);
    const Entry entry(archive_entry_new(), archive_entry_free);
    add_filter(writer.get());
    set_format(writer.get());
    archive_write_set_bytes_in_last_block(writer.get(), 1);
    archive_write_open_memory(writer.get(), result.data(), result.size(), &used);
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), 0644);
    archive_entry_set_size(entry.get(), static_cast<la_int64_t>(contents.size()));
    for (const auto &[offset, text] : parts) {
        archive_entry_sparse_add_entry(entry.get(), static_cast<la_int64_t>(offset),
                                       static_cast<la_int64_t>(text.size()));
    }
    archive_write_header(writer.get(), entry.get());
    archive_write_data(writer.get(), contents.data(), contents.size());
    archive_write_close(writer.get());
    result.resize(used);
    return result;
}

}  // namespace

std::string bzip2(const std::string &bytes)
{
    return written(archive_write_add_filter_bzip2, archive_write_set_format_raw, "raw", bytes);
}

std::string tar_of(const std::string &name, const std::string &contents)
{
    return written(archive_write_add_filter_none, archive_write_set_format_gnutar, name, contents);
}

std::string tar_with_holes(const std::string &name, std::size_t size, const std::map<std::size_t, std::string> &texts)
{
    std::string contents(size, '\0');
    for (const auto &[offset, text] : texts) {
        contents.replace(offset, text.size(), text);
    }
    return written(archive_write_add_filter_none, archive_write_set_format_pax, name, contents, texts);
}

std::string whole_archive(const std::string &text)
{
    return bzip2(tar_of("etc/settings", "contents of " + text + "\n"));
}

std::string with_flipped_byte(std::string archive)
{
    archive[archive.size() / 2] = static_cast<char>(archive[archive.size() / 2] ^ 0x10);
    return archive;
}

}  // namespace test
