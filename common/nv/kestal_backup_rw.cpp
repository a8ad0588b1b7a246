#include <errno.h>
#include <string.h>

#include "kesta/alloc.h"
#include "kesta/system_backup_area.h"
#include "large_buffer.h"
#include "ownership.h"
#include "sbacc.h"
#include "slot_names.h"
#include "trace.h"

namespace {

// One open file of the system backup area. Results of the platform are signed, and are compared
// signed throughout.
class SbaccHandle {
public:
    explicit SbaccHandle(const char *f_name) : f_name_(f_name) {}
    ~SbaccHandle()
    {
        kesta::CancelOff off;  // closing and tracing may be cancellation points
        close();
    }
    SbaccHandle(const SbaccHandle &) = delete;
    SbaccHandle &operator=(const SbaccHandle &) = delete;

    int open(const char *mode)
    {
        const int result = sbacc_open(f_name_, mode, &handle_, &close_flag_);
        is_open_ = result == 0;
        return result;
    }

    // Closes the handle if it is open, logs a failure, and returns the result.
    int close()
    {
        if (!is_open_) {
            return KESTA_OK;
        }
        is_open_ = false;
        const int result = sbacc_close(handle_);
        if (result != 0) {
            FAILURE(PLATFORM, result, 1, "[backup_rw]  File Close ERROR f_name=%s result=%d ", f_name_, result);
        }
        return result;
    }

    int handle() const { return handle_; }
    bool closed_properly() const { return close_flag_ != 0; }

private:
    const char *f_name_;
    int handle_ = -1;
    int close_flag_ = 1;
    bool is_open_ = false;
};

int read_whole(SbaccHandle &file, const char *f_name, void **data, unsigned int *size)
{
    if (!data) {
        FAILURE(ARGUMENT, 0, 1, "[backup_rw] Argument ERROR(data=NULL)");
        return KESTA_ERR_ARGUMENT;
    }
    int result = file.open("r");
    if (result != 0) {
        FAILURE(PLATFORM, result, 1, "[backup_rw] File Open(R) ERROR f_name=%s result=%d ", f_name, result);
        return KESTA_ERR;
    }
    if (!file.closed_properly()) {
        FAILURE(CONTENT, 0, 1, "[backup_rw] Close flag=false. f_name=%s", f_name);
        return KESTA_ERR;
    }
    const int stored = sbacc_read_size(file.handle());
    if (stored < 0) {
        FAILURE(PLATFORM, stored, 1, "[backup_rw] File Size ERROR f_name=%s result=%d ", f_name, stored);
        return KESTA_ERR;
    }
    *size = static_cast<unsigned int>(stored);
    *data = kestal_calloc_debug(1, stored, __FILE__, __LINE__, 0);
    if (!*data) {
        MEMORY_FAILURE(error, 1, "[backup_rw] CALLOC ERROR size=%d errno=%d", stored, error);
        return KESTA_ERR;
    }
    kesta::prefer_huge_pages(*data, *size);
    result = sbacc_read(*data, *size, 0, file.handle());
    if (result != stored) {
        FAILURE(PLATFORM, result, 1, "[backup_rw]  Read ERROR f_name=%s result=%d ", f_name, result);
        return KESTA_ERR;
    }
    return KESTA_OK;
}

// The size of a slot is recorded through a second opening: the first close publishes the bytes.
int record_size(SbaccHandle &file, const char *f_name, unsigned int size)
{
    (void)file.close();  // logged there; the second opening tells whether the slot is usable
    int result = file.open("w");
    if (result != 0) {
        FAILURE(PLATFORM, result, 1, "[backup_rw]  File Open-2(W) ERROR f_name=%s result=%d ", f_name, result);
        return KESTA_ERR;
    }
    result = sbacc_write_size(size, file.handle());
    if (result < 0) {
        FAILURE(PLATFORM, result, 1, "[backup_rw]  File WriteSize(W) ERROR f_name=%s result=%d ", f_name, result);
        return KESTA_ERR;
    }
    TRACE(3, "[backup_rw] WriteSize(%s) = %d", f_name, static_cast<int>(size));
    return KESTA_OK;
}

int write_whole(SbaccHandle &file, const char *f_name, void *const *data, unsigned int size)
{
    if (!data || !*data) {
        FAILURE(ARGUMENT, 0, 1, "[backup_rw] Argument ERROR(data=NULL)");
        return KESTA_ERR_ARGUMENT;
    }
    int result = file.open("w");
    if (result != 0) {
        FAILURE(PLATFORM, result, 1, "[backup_rw]  File Open(W) ERROR f_name=%s result=%d ", f_name, result);
        return KESTA_ERR;
    }
    if (!file.closed_properly()) {
        TRACE(5, "[backup_rw]  Close flag=false. f_name=%s", f_name);
    }
    result = sbacc_write(*data, size, 0, file.handle());
    if (static_cast<long long>(result) < static_cast<long long>(size)) {
        FAILURE(PLATFORM, result, 1, "[backup_rw]  File Write ERROR f_name=%s result=%d ", f_name, result);
        return KESTA_ERR;
    }
    return kesta::is_slot_name(f_name) ? record_size(file, f_name, size) : KESTA_OK;
}

}  // namespace

int kestal_backup_rw(const char *f_name, int rw_flag, void **data, unsigned int *size)
{
    if (!f_name) {
        FAILURE(ARGUMENT, 0, 1, "[backup_rw] Argument ERROR(f_name=NULL)");
        return KESTA_ERR_ARGUMENT;
    }
    if (!size) {
        FAILURE(ARGUMENT, 0, 1, "[backup_rw] Argument ERROR(d_size=NULL)");
        return KESTA_ERR_ARGUMENT;
    }
    TRACE(5, "[backup_rw] START f_name=%s, rw_flag=%d", f_name, rw_flag);

    SbaccHandle file(f_name);
    int ret = KESTA_ERR_ARGUMENT;
    if (rw_flag == KESTA_FILE_READ) {
        ret = read_whole(file, f_name, data, size);
    } else if (rw_flag == KESTA_FILE_WRITE) {
        ret = write_whole(file, f_name, data, *size);
    } else {
        FAILURE(ARGUMENT, 0, 1, "[backup_rw] Read Write flag ERROR");
    }
    const int closed = file.close();
    if (ret == KESTA_OK) {
        ret = closed;
    }
    TRACE(5, "[backup_rw] END ret=%d", ret);
    return ret;
}
