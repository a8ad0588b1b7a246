#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <array>
#include <cstdint>

#include "kesta/paths.h"
#include "kesta/process.h"
#include "kesta/versions.h"
#include "opened_file.h"
#include "ownership.h"
#include "text_line.h"
#include "trace.h"

namespace {

// The number of a file is its row; the last two are brought by a restore and only read.
constexpr std::array<const char *, 6> flash_version_files{
    KESTA_VERSION_FILE,      KESTA_REBOOT_FILE,         KESTA_CNTNO_FILE,
    KESTA_REBOOT_COUNT_FILE, KESTA_MASTER_VERSION_FILE, KESTA_MASTER_REBOOT_FILE,
};
constexpr std::size_t writable_files = 4;

constexpr int no_version = -1;
constexpr const char *no_version_text = "-1";

// The first word of a file, at most 10 characters of it; empty if there is none.
using Word = std::array<char, 11>;

const char *path_of(int f_type) { return flash_version_files[static_cast<std::size_t>(f_type)]; }

bool is_below(int f_type, std::size_t end) { return f_type >= 0 && static_cast<std::size_t>(f_type) < end; }

// The usual decimal conversion of at most 10 digits, without an overflow check.
int to_version(const char *digits) { return static_cast<int>(strtol(digits, nullptr, 10)); }

void read_word(FILE *file, Word &word)
{
    if (fscanf(file, "%10s", word.data()) != 1) {
        word[0] = '\0';
    }
}

int write_line(int fd, const char *path, int version)
{
    const kesta::LineWritten line = kesta::write_line(fd, "%d\n", version);
    if (!line.made) {
        FAILURE(ARGUMENT, 0, 1, "[set_flash_version_file] Buffer ERROR flash_version_file=%s", path);
        return KESTA_ERR;
    }
    if (const kesta::TextWritten &result = line.text; !result.complete()) {
        FAILURE(SYSTEM, result.error, 1,
                "[set_flash_version_file] File Write Error flash_version_file=%s len=%d result=%d "
                "errno=%d",
                path, result.length, result.written, result.error);
        return KESTA_ERR;
    }
    return KESTA_OK;
}

}  // namespace

int g_version_file_sync = KESTA_ON;

int kestal_read_flash_version_file(int *version, int f_type)
{
    TRACE(5, "[read_flash_version_file] START f_type=%d", f_type);
    if (!version) {
        FAILURE(ARGUMENT, 0, 1, "[read_flash_version_file] Argument ERROR version=NULL");
        return KESTA_ERR_ARGUMENT;
    }
    if (!is_below(f_type, flash_version_files.size())) {
        FAILURE(ARGUMENT, 0, 1, "[read_flash_version_file] Argument ERROR f_type=%d", f_type);
        return KESTA_ERR_ARGUMENT;
    }
    const char *path = path_of(f_type);
    Word word{};
    {
        const kesta::FilePtr file(kesta::open_stream(path));
        const int error = errno;
        if (!file && error == ENOENT) {
            *version = no_version;
            TRACE(4, "[read_flash_version_file] flash_version_file=%s not exist -> version=-1", path);
            return KESTA_OK;
        }
        if (!file) {
            FAILURE(SYSTEM, error, 1, "[read_flash_version_file] flash_version_file=%s Open ERROR errno=%d", path,
                    error);
            return KESTA_ERR;
        }
        read_word(file.get(), word);
    }
    if (strcmp(word.data(), no_version_text) != 0 && kestal_isdigit(word.data()) != KESTA_OK) {
        FAILURE(CONTENT, 0, 1, "[read_flash_version_file] isdigit check ERROR flash_version_file=%s read_buf=%s", path,
                word.data());
        return KESTA_ERR;
    }
    *version = to_version(word.data());
    TRACE(4, "[read_flash_version_file] Flash flash_version_file=%s version=%d", path, *version);
    TRACE(5, "[read_flash_version_file] END version=%d", *version);
    return KESTA_OK;
}

int kestal_set_flash_version_file(int version, int f_type)
{
    TRACE(5, "[set_flash_version_file] START version=%d f_type=%d", version, f_type);
    if (version < no_version) {
        FAILURE(ARGUMENT, 0, 1, "[set_flash_version_file] Argument ERROR version=%d", version);
        return KESTA_ERR_ARGUMENT;
    }
    if (!is_below(f_type, writable_files)) {
        FAILURE(ARGUMENT, 0, 1, "[set_flash_version_file] Argument ERROR f_type=%d", f_type);
        return KESTA_ERR_ARGUMENT;
    }
    const char *path = path_of(f_type);
    int ret;
    {
        const kesta::UniqueFd file(kesta::open_at_once(path, O_WRONLY | O_CREAT | O_TRUNC, kesta::new_text_file_mode));
        if (!file) {
            SYSTEM_FAILURE(error, 1, "[set_flash_version_file] Flash flash_version_file=%s Open ERROR errno=%d", path,
                           error);
            return KESTA_ERR;
        }
        ret = write_line(file.get(), path, version);
    }
    TRACE(4, "[set_flash_version_file] flash_version_file=%s version=%d", path, version);
    TRACE(5, "[set_flash_version_file] END ret=%d", ret);
    return ret;
}

void kestal_set_version_file_sync(void) { __atomic_store_n(&g_version_file_sync, KESTA_ON, __ATOMIC_RELAXED); }

void kestal_reset_version_file_sync(void) { __atomic_store_n(&g_version_file_sync, KESTA_OFF, __ATOMIC_RELAXED); }
