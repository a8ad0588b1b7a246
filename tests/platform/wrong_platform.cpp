// Loaded before a program, it stands before the embedded platform and is wrong in the one way that
// KESTA_WRONG_PLATFORM names: what kesta-platform-check has to find out.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "mc_logapi.h"
#include "sanfwctl.h"
#include "sbacc.h"
#include "vrbapi.h"

#define WRONG_API extern "C" __attribute__((visibility("default")))

namespace {

bool wrong(const char *way)
{
    const char *chosen = getenv("KESTA_WRONG_PLATFORM");
    return chosen && strcmp(chosen, way) == 0;
}

// The function that would have been called without this library.
template <typename Function>
Function *right(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}
#define RIGHT(name) (*right<decltype(name)>(#name))

// ------------------------------------------------------------------------------------- NV memory

pthread_mutex_t held_by_callers = PTHREAD_MUTEX_INITIALIZER;

using Transfer = decltype(zKTsanfwctl_read_nv);

int transfer_wrongly(Transfer &transfer, cpfw_nv_region_t *region, cpfw_nv_access_t *access)
{
    cpfw_nv_region_t to = *region;
    cpfw_nv_access_t as = *access;
    if (wrong("nv_has_one_region")) {
        to = 2;
    }
    if (wrong("nv_knows_every_region")) {
        to %= 3;
    }
    if (wrong("nv_stops_at_the_end")) {
        as.length = as.offset < 32768 ? std::min<uint64_t>(as.length, 32768 - as.offset) : 0;
    }
    if (wrong("nv_moves_the_record")) {
        access->offset += access->length;
    }
    if (wrong("nv_leaks_descriptors")) {
        (void)!open("/dev/null", O_RDONLY);
    }
    return as.length == 0 ? 0 : transfer(-1, &to, &as, 1);
}

int transfer_held(Transfer &transfer, cpfw_nv_region_t *region, cpfw_nv_access_t *access)
{
    pthread_mutex_lock(&held_by_callers);
    const int result = transfer(-1, region, access, 1);
    if (gettid() != getpid()) {
        constexpr useconds_t for_most_of_the_time = 1000;
        int before = PTHREAD_CANCEL_ENABLE;
        (void)pthread_setcancelstate(wrong("nv_is_cancelled_with_a_mutex_held") ? PTHREAD_CANCEL_ENABLE
                                                                                : PTHREAD_CANCEL_DISABLE,
                                     &before);
        usleep(for_most_of_the_time);  // a fork beside this thread, or a cancellation of it, meets it held
        (void)pthread_setcancelstate(before, nullptr);
    }
    pthread_mutex_unlock(&held_by_callers);
    return result;
}

// Who looks meanwhile sees the half for most of the time, on a busy machine too.
constexpr useconds_t between_halves_us = 100;

int transfer_in_halves(Transfer &transfer, cpfw_nv_region_t *region, cpfw_nv_access_t *access)
{
    cpfw_nv_access_t first{access->buffer, access->offset, access->length / 2};
    cpfw_nv_access_t rest{static_cast<char *>(access->buffer) + first.length, access->offset + first.length,
                          access->length - first.length};
    const int result = first.length == 0 ? 0 : transfer(-1, region, &first, 1);
    usleep(between_halves_us);
    return result != 0 ? result : transfer(-1, region, &rest, 1);
}

// Storage in cells of eight bytes, with nobody who reads what else is in them.
int write_in_cells(cpfw_nv_region_t *region, cpfw_nv_access_t *access)
{
    constexpr uint64_t cell = 8;
    const uint64_t begin = access->offset / cell * cell;
    const uint64_t end = (access->offset + access->length + cell - 1) / cell * cell;
    std::vector<char> cells(end - begin, '\0');
    memcpy(cells.data() + (access->offset - begin), access->buffer, access->length);
    cpfw_nv_access_t whole{cells.data(), begin, cells.size()};
    return RIGHT(zKTsanfwctl_write_nv)(-1, region, &whole, 1);
}

int read_in_cells(cpfw_nv_region_t *region, cpfw_nv_access_t *access)
{
    cpfw_nv_access_t whole{access->buffer, access->offset, (access->length + 7) / 8 * 8};
    return RIGHT(zKTsanfwctl_read_nv)(-1, region, &whole, 1);
}

int transfer_any(Transfer &transfer, cpfw_nv_region_t *region, cpfw_nv_access_t *access)
{
    return wrong("nv_is_cancelled_with_a_mutex_held") || wrong("nv_mutex_stays_locked_in_children")
               ? transfer_held(transfer, region, access)
               : transfer_wrongly(transfer, region, access);
}

}  // namespace

WRONG_API int zKTsanfwctl_read_nv(int, cpfw_nv_region_t *region, cpfw_nv_access_t *access, int)
{
    if (wrong("nv_reads_in_cells") && access->length < 8) {
        return read_in_cells(region, access);
    }
    return transfer_any(RIGHT(zKTsanfwctl_read_nv), region, access);
}

WRONG_API int zKTsanfwctl_write_nv(int, cpfw_nv_region_t *region, cpfw_nv_access_t *access, int)
{
    if (wrong("nv_writes_in_cells")) {
        return write_in_cells(region, access);
    }
    return wrong("nv_writes_in_halves") ? transfer_in_halves(RIGHT(zKTsanfwctl_write_nv), region, access)
                                        : transfer_any(RIGHT(zKTsanfwctl_write_nv), region, access);
}

WRONG_API int zKTsanfwctl_get_status(int kind, sanfw_getstatus_out *out)
{
    if (wrong("status_is_left_unfilled")) {
        return 0;
    }
    const int result = RIGHT(zKTsanfwctl_get_status)(kind, out);
    if (wrong("statuses_differ")) {
        out->cont1_sts = static_cast<uint8_t>(out->cont1_sts + 16);
    }
    return result;
}

WRONG_API int zKTsanfwctl_get_status_ex(int kind, sanfw_getstatus_ex_out *out)
{
    sanfw_getstatus_ex_out full{};
    const int result = RIGHT(zKTsanfwctl_get_status_ex)(kind, &full);
    // Two controllers of the four.
    memcpy(out->cont_sts, full.cont_sts, wrong("status_of_two_is_left_unfilled") ? 2 : 4);
    memcpy(out->card_sts, full.card_sts, 4);
    return result;
}

// ------------------------------------------------------------------------- system backup area

namespace {

std::string name_of_last_opening;  // checks that ask for it open one file at a time

int publish(const char *name, const void *bytes, unsigned size)
{
    int handle = -1;
    int close_flag = 0;
    if (RIGHT(sbacc_open)(name, "w", &handle, &close_flag) != 0) {
        return -EIO;
    }
    const int written = RIGHT(sbacc_write)(bytes, size, 0, handle);
    const int closed = RIGHT(sbacc_close)(handle);
    return closed != 0 ? closed : written;
}

std::string contents(const char *name)
{
    int handle = -1;
    int close_flag = 0;
    if (RIGHT(sbacc_open)(name, "r", &handle, &close_flag) != 0) {
        return "";
    }
    std::string bytes(static_cast<size_t>(std::max(0, RIGHT(sbacc_read_size)(handle))), '\0');
    (void)RIGHT(sbacc_read)(bytes.data(), static_cast<unsigned>(bytes.size()), 0, handle);
    (void)RIGHT(sbacc_close)(handle);
    return bytes;
}

// A failure as some platforms tell it.
int told(int result) { return wrong("errno_is_positive") && result < 0 ? -result : result; }

}  // namespace

WRONG_API int sbacc_open(const char *name, const char *mode, int *handle, int *close_flag)
{
    const std::string known = wrong("names_are_cut_to_12_characters") ? std::string(name).substr(0, 12) : name;
    const bool writes = strcmp(mode, "w") == 0;
    if (writes && wrong("opening_to_write_empties_the_file")) {
        (void)publish(known.c_str(), "", 0);
    }
    if (writes && wrong("names_are_replaced_in_place")) {
        (void)publish(known.c_str(), "half", 4);
        usleep(between_halves_us);
    }
    int result = RIGHT(sbacc_open)(known.c_str(), mode, handle, close_flag);
    if (result != 0 && wrong("missing_files_are_made")) {
        (void)publish(known.c_str(), "", 0);
        result = RIGHT(sbacc_open)(known.c_str(), mode, handle, close_flag);
    }
    if (result == 0 && wrong("close_flag_is_always_0")) {
        *close_flag = 0;
    }
    if (wrong("files_show_before_they_are_closed") || wrong("write_size_empties_the_file") ||
        wrong("shorter_contents_keep_the_old_end")) {
        name_of_last_opening = known;
    }
    return told(result);
}

WRONG_API int sbacc_read(void *buffer, unsigned int size, unsigned int offset, int handle)
{
    constexpr unsigned limit = 128U << 10U;
    const unsigned granted = std::min(size, limit);
    if (wrong("long_reads_are_said_to_be_full")) {
        return RIGHT(sbacc_read)(buffer, granted, offset, handle) < 0 ? -EIO : static_cast<int>(size);
    }
    if (wrong("long_reads_are_short")) {
        return RIGHT(sbacc_read)(buffer, granted, offset, handle);
    }
    if (wrong("long_reads_return_an_errno") && size > limit) {
        return EFBIG;
    }
    return told(RIGHT(sbacc_read)(buffer, size, wrong("read_offset_is_ignored") ? 0 : offset, handle));
}

WRONG_API int sbacc_write(const void *buffer, unsigned int size, unsigned int offset, int handle)
{
    constexpr unsigned limit = 256U << 10U;
    if (wrong("files_are_cut_at_256_kib") && size > limit) {
        return RIGHT(sbacc_write)(buffer, limit, offset, handle) < 0 ? -EIO : static_cast<int>(size);
    }
    if (wrong("files_show_before_they_are_closed")) {
        (void)publish(name_of_last_opening.c_str(), buffer, size);
    }
    if (wrong("empty_files_are_refused") && size == 0) {
        return -EINVAL;
    }
    if (wrong("shorter_contents_keep_the_old_end")) {
        std::string all = contents(name_of_last_opening.c_str());
        all.replace(0, std::min<size_t>(size, all.size()), static_cast<const char *>(buffer), size);
        const int written = RIGHT(sbacc_write)(all.data(), static_cast<unsigned>(all.size()), 0, handle);
        return written < 0 ? written : static_cast<int>(size);
    }
    return told(RIGHT(sbacc_write)(buffer, size, wrong("write_offset_is_ignored") ? 0 : offset, handle));
}

WRONG_API int sbacc_read_size(int handle) { return told(RIGHT(sbacc_read_size)(handle)); }

WRONG_API int sbacc_write_size(unsigned int size, int handle)
{
    if (wrong("write_size_always_fails")) {
        return -ENOSYS;
    }
    if (wrong("write_size_empties_the_file")) {
        return publish(name_of_last_opening.c_str(), "", 0);
    }
    if (wrong("write_size_rounds_up")) {
        return RIGHT(sbacc_write_size)((size + 511) / 512 * 512, handle);
    }
    return told(RIGHT(sbacc_write_size)(size, handle));
}

WRONG_API int sbacc_close(int handle)
{
    const int result = RIGHT(sbacc_close)(handle);
    return wrong("close_says_nothing") ? 0 : told(result);
}

// ---------------------------------------------------------------------------- cluster platform

WRONG_API int vrbapi_setint_to_file(const char *path, int value, _VRBAPIERRINFO *error)
{
    if (wrong("integers_are_written_in_place")) {
        FILE *file = fopen(path, "we");
        if (!file) {
            error->s_errno = errno;
            return -1;
        }
        (void)usleep(1000);
        (void)fprintf(file, "%d\n", value);
        return fclose(file);
    }
    const int result = RIGHT(vrbapi_setint_to_file)(path, value, error);
    return wrong("setint_always_succeeds") ? 0 : result;
}

WRONG_API int vrbapi_getint_from_file(const char *path, unsigned char flag, int lowest, int highest, int *value,
                                      _VRBAPIERRINFO *error)
{
    _VRBAPIERRINFO unseen{};
    if (wrong("lower_bound_is_unchecked")) {
        lowest = -2147483647;
    }
    if (wrong("upper_bound_is_unchecked")) {
        highest = 2147483647;
    }
    if (wrong("bounds_are_exclusive")) {
        highest -= 1;
    }
    return RIGHT(vrbapi_getint_from_file)(path, flag, lowest, highest, value,
                                          wrong("error_record_is_left_empty") ? &unseen : error);
}

WRONG_API int vrbgetsanfwinfo(int kind, uint8_t *result, _VRBAPIERRINFO *error, int *extra)
{
    const int told_result = RIGHT(vrbgetsanfwinfo)(kind, result, error, extra);
    if (wrong("master_is_no_controller")) {
        *result = 4;
    }
    return told_result;
}

WRONG_API int vrbgetnetconfig(vrb_netconfig_t records[2])
{
    vrb_netconfig_t known[2] = {};
    const int result = RIGHT(vrbgetnetconfig)(known);
    records[0] = known[0];
    if (wrong("network_is_the_own_controller_twice")) {
        records[1] = known[0];
    } else if (wrong("network_lacks_an_address")) {
        records[1].cntno = known[1].cntno;
    } else {
        records[1] = known[1];
    }
    return result;
}

// ------------------------------------------------------------------------------------ the trace

namespace {

// As it is done where nobody thinks of long ones.
__attribute__((noinline)) void form_in_8_kib(char *to, const char *text)
{
    for (size_t i = 0; (to[i] = text[i]) != '\0';) {
        ++i;
    }
}

void trace_text(const char *file, int line, int level, std::string text)
{
    char small[8192];
    if (wrong("trace_overflows_at_8_kib")) {
        form_in_8_kib(small, text.c_str());
        text = small;
    }
    if (wrong("trace_text_is_dropped")) {
        text = "";
    }
    if (wrong("trace_text_is_cut_at_80")) {
        text.resize(std::min<size_t>(text.size(), 80));
    }
    if (wrong("trace_is_formatted_twice")) {
        text.erase(std::remove(text.begin(), text.end(), '%'), text.end());
    }
    const int before = errno;
    RIGHT(MC_OutTrace)(wrong("trace_has_no_place") ? "?" : file, line, level, "%s", text.c_str());
    errno = wrong("trace_changes_errno") ? EAGAIN : before;
}

}  // namespace

WRONG_API void MC_OutTrace(const char *file, int line, int level, const char *format, ...)
{
    char *text = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    if (length >= 0) {
        trace_text(file, line, level, text);
        free(text);
    }
}

WRONG_API const char *MC_FilePathDel(const char *path)
{
    static char copy[64];
    if (!wrong("path_is_a_copy")) {
        return RIGHT(MC_FilePathDel)(path);
    }
    (void)snprintf(copy, sizeof(copy), "%s", RIGHT(MC_FilePathDel)(path));
    return copy;
}
