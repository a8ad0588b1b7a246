// The functions of libarchive and libnettle that the engine calls. libarchive brings five other libraries with it: the two
// were a third of the start of every command, and most commands need neither.
#pragma once

#include <archive.h>
#include <archive_entry.h>
#include <nettle/sha2.h>

#include "loaded_function.h"

namespace engine {

// NOLINTBEGIN(bugprone-macro-parentheses): a name that is declared stands in none
#define KESTA_LOADED(library, name) \
    inline constinit const LoadedFunction<decltype(&::name)> name { library, #name }
// NOLINTEND(bugprone-macro-parentheses)

KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_copy_gname);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_copy_hardlink);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_copy_pathname);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_copy_symlink);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_copy_uname);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_filetype);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_free);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_gid);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_gname);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_hardlink);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_mtime);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_mtime_nsec);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_new);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_pathname);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_perm);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_set_filetype);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_set_gid);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_set_mtime);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_set_perm);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_set_size);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_set_uid);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_size);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_symlink);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_uid);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_entry_uname);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_errno);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_error_string);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_filter_bytes);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_filter_code);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_filter_count);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_read_data);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_read_data_block);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_read_data_skip);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_read_free);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_read_new);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_read_next_header);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_read_open);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_read_support_filter_bzip2);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_read_support_format_raw);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_read_support_format_tar);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_write_add_filter_bzip2);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_write_close);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_write_data);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_write_finish_entry);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_write_free);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_write_header);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_write_new);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_write_open);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_write_open_fd);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_write_set_bytes_in_last_block);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_write_set_format_gnutar);
KESTA_LOADED(KESTA_LIBARCHIVE, archive_write_set_format_pax_restricted);

KESTA_LOADED(KESTA_LIBNETTLE, nettle_sha256_init);
KESTA_LOADED(KESTA_LIBNETTLE, nettle_sha256_update);
KESTA_LOADED(KESTA_LIBNETTLE, nettle_sha256_digest);

// Its own type has an attribute that no template takes.
inline constinit const LoadedFunction<void (*)(::archive *, int, const char *, ...)> archive_set_error{
    KESTA_LIBARCHIVE, "archive_set_error"};

#undef KESTA_LOADED

}  // namespace engine
