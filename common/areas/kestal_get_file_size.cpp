#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>

#include "kesta/area_files.h"
#include "opened_file.h"
#include "ownership.h"
#include "trace.h"

namespace {

// The end position of an open file, or -1 with errno: a folder can be opened, but not measured,
// and a size that 32 bits can't say would be taken for a smaller one.
long long end_position(FILE *file)
{
    struct stat status;
    if (fstat(fileno(file), &status) == 0 && S_ISDIR(status.st_mode)) {
        errno = EISDIR;
        return -1;
    }
    if (fseek(file, 0, SEEK_END) != 0) {
        return -1;
    }
    const long position = ftell(file);
    if (position > static_cast<long long>(UINT32_MAX)) {
        errno = EFBIG;
        return -1;
    }
    return position;
}

}  // namespace

int kestal_get_file_size(const char *f_name, unsigned int *ret_size)
{
    if (!f_name) {
        FAILURE(ARGUMENT, 0, 1, "[get_file_size] Argument ERROR(f_name=NULL)");
        return KESTA_ERR_ARGUMENT;
    }
    if (!ret_size) {
        FAILURE(ARGUMENT, 0, 1, "[get_file_size] Argument ERROR(ret_size=NULL)");
        return KESTA_ERR_ARGUMENT;
    }
    const kesta::FilePtr file(kesta::open_stream(f_name));
    const long long size = file ? end_position(file.get()) : -1;
    if (size < 0) {
        SYSTEM_FAILURE(error, 1, "[get_file_size] File open Error f_name =%s errno=%d", f_name, error);
        return KESTA_ERR_ARGUMENT;
    }
    *ret_size = static_cast<unsigned int>(size);
    TRACE(5, "[get_file_size] END f_name=%s ret_size=%d", f_name, static_cast<int>(*ret_size));
    return KESTA_OK;
}
