#include <errno.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>

#include "kesta/alloc.h"
#include "kesta/nv_dump.h"
#include "kesta/nv_image.h"
#include "nv_transfer.h"
#include "ownership.h"
#include "sanfwctl.h"
#include "trace.h"

namespace {

// Parts of the image that are dumped. The identity fields and alivemond are left out on purpose.
struct DumpRegion {
    const char *name;
    int offset;
    int size;
};
constexpr DumpRegion region(const char *name, std::size_t begin, std::size_t end)
{
    return {name, static_cast<int>(begin), static_cast<int>(end - begin)};
}
constexpr std::array<DumpRegion, 5> dump_regions{{
    region("HEADER", offsetof(KESTA_VOLATILE, magic), offsetof(KESTA_VOLATILE, sync_flag)),
    region("KESTA_SYNC", offsetof(KESTA_VOLATILE, sync_flag), offsetof(KESTA_VOLATILE, cnttbl)),
    region("CNT_COMMON_TBL", offsetof(KESTA_VOLATILE, cnttbl), offsetof(KESTA_VOLATILE, wwn)),
    // What is not used, and the items that have come to lie there.
    region("FILLER", offsetof(KESTA_VOLATILE, guid) + sizeof(KESTA_VOLATILE::guid),
           offsetof(KESTA_VOLATILE, innerlock)),
    region("INNERLOCK", offsetof(KESTA_VOLATILE, innerlock), sizeof(KESTA_VOLATILE)),
}};

constexpr int page_size = 256;
constexpr std::size_t bytes_a_line = 16;
constexpr std::size_t bytes_a_group = 4;
constexpr std::size_t offset_digits = 8;
constexpr std::size_t first_group_column = 10;
constexpr std::size_t group_width = 9;  // eight digits and a blank
constexpr std::size_t text_column = 47;
constexpr std::size_t line_width = 63;

// The two digits of every byte, and the character that stands for it.
struct ByteTable {
    std::array<std::array<char, 2>, 256> digits{};
    std::array<char, 256> shown{};

    constexpr ByteTable()
    {
        constexpr char hexadecimal[] = "0123456789abcdef";
        for (unsigned i = 0; i < 256; ++i) {
            digits[i] = {hexadecimal[i >> 4], hexadecimal[i & 15]};
            shown[i] = i >= 32 && i <= 126 ? static_cast<char>(i) : '.';
        }
    }
};
constexpr ByteTable byte_table;

// Forms a line of count bytes with its newline. A constant count makes the columns constant.
inline void form_bytes(char *line, const unsigned char *bytes, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t column = first_group_column + i / bytes_a_group * group_width + i % bytes_a_group * 2;
        memcpy(line + column, byte_table.digits[bytes[i]].data(), 2);
        line[text_column + i] = byte_table.shown[bytes[i]];
    }
}

__attribute__((always_inline)) inline void form_line(char *line, std::uint32_t offset, const unsigned char *bytes,
                                                     std::size_t count)
{
    memset(line, ' ', line_width);
    for (std::size_t i = offset_digits; i > 0; i -= 2) {
        memcpy(line + i - 2, byte_table.digits[offset & 0xff].data(), 2);
        offset >>= 8;
    }
    line[offset_digits] = ':';
    if (count == bytes_a_line) {
        form_bytes(line, bytes, bytes_a_line);
    } else {
        form_bytes(line, bytes, count);
    }
    line[line_width] = '\n';
}

// A failure stays in the stream. Not more lines at once: a thread's stack may be small.
void write_lines(FILE *out, const unsigned char *bytes, std::size_t size)
{
    constexpr std::size_t lines_a_write = 128;
    std::array<char, lines_a_write *(line_width + 1)> lines;
    std::size_t used = 0;
    for (std::size_t at = 0; at < size; at += bytes_a_line) {
        form_line(lines.data() + used, static_cast<std::uint32_t>(at), bytes + at, std::min(bytes_a_line, size - at));
        used += line_width + 1;
        if (used == lines.size()) {
            (void)fwrite(lines.data(), 1, used, out);
            used = 0;
        }
    }
    if (used > 0) {
        (void)fwrite(lines.data(), 1, used, out);
    }
}

void trace_lines(const unsigned char *bytes, std::size_t size)
{
    std::array<char, line_width + 1> line;
    for (std::size_t at = 0; at < size; at += bytes_a_line) {
        form_line(line.data(), static_cast<std::uint32_t>(at), bytes + at, std::min(bytes_a_line, size - at));
        line[line_width] = '\0';
        TRACE(4, "%s", line.data());
    }
}

// Where a dump goes: a file of its own, or the trace log.
class Output {
public:
    explicit Output(const char *name) : name_(name), file_(name ? kesta::above_standard(fopen(name, "we")) : nullptr) {}
    ~Output()
    {
        if (file_) {
            kesta::CancelOff off;
            (void)fclose(file_);  // a failure has been told on this path
        }
    }
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    bool usable() const { return !name_ || file_; }
    FILE *file() const { return file_; }

    // A line of text, with its newline for a file.
    __attribute__((format(printf, 2, 3))) void heading(const char *format, ...) const
    {
        char text[160];
        va_list arguments;
        va_start(arguments, format);
        vsnprintf(text, sizeof(text), format, arguments);
        va_end(arguments);
        if (file_) {
            fputs(text, file_);
        } else {
            TRACE(4, "%s", text);
        }
    }
    void newline() const
    {
        if (file_) {
            fputc('\n', file_);
        }
    }
    void time_of_output() const
    {
        const time_t now = time(nullptr);
        struct tm local {};
        char text[32] = "";
        localtime_r(&now, &local);
        heading(">>>>> OUTPUT TIME: %s \n", asctime_r(&local, text));
    }

    // Whether all of it reached the file. On a full device it did not, and the dump fails: half a dump that is
    // called whole would mislead who reads it.
    bool close()
    {
        if (!file_) {
            return true;
        }
        const bool written = ferror(file_) == 0;
        const bool closed = fclose(file_) == 0;
        file_ = nullptr;
        return written && closed;
    }

private:
    const char *name_;
    FILE *file_;
};

int end_output(Output &output, const char *tag, int result)
{
    if (!output.close()) {
        SYSTEM_FAILURE(error, 1, "[%s] fclose error. errno=%d", tag, error);
        result = KESTA_ERR;
    }
    TRACE(5, "[kestal_non_volatile_dumpout] end. ret=%d", result);
    return result;
}

int dump_region(const DumpRegion &region, const Output &output)
{
    const kesta::TrackedBuffer buffer(kestal_calloc_debug(1, region.size, __FILE__, __LINE__, 0));
    if (!buffer) {
        MEMORY_FAILURE(error, 1, "[kestal_non_volatile_dumpout] CALLOC error. size=%d errno=%d", region.size, error);
        return KESTA_ERR;
    }
    TRACE(5, "[kestal_non_volatile_dumpout] read nv memory. (%s)", region.name);
    if (kestal_non_volatile_r_memory(KESTA_NV_IMAGE_REGION, buffer.get(), region.offset, region.size) != KESTA_OK) {
        TRACE(1, "[kestal_non_volatile_dumpout] kestal_non_volatile_r_memory error.");
        return KESTA_ERR;
    }
    output.heading("***** NV MEMORY [%s] *****", region.name);
    output.newline();
    kestal_non_volatile_dump(output.file(), static_cast<char *>(buffer.get()), region.size);
    return KESTA_OK;
}

int dump_pages(int region, int offset, int pages, const Output &output)
{
    for (int i = 0; i < pages; ++i) {
        std::array<char, page_size> page{};
        if (kestal_non_volatile_r_memory(static_cast<cpfw_nv_region_t>(region), page.data(), offset + page_size * i,
                                         page_size) != KESTA_OK) {
            TRACE(1, "[kestal_non_volatile_dumpout] kestal_non_volatile_r_memory error.");
            return KESTA_ERR;
        }
        output.heading("***** NV MEMORY [%d/%d] *****", i, pages);
        output.newline();
        kestal_non_volatile_dump(output.file(), page.data(), page_size);
    }
    return KESTA_OK;
}

}  // namespace

int kestal_non_volatile_r_memory(cpfw_nv_region_t region, void *buffer, int offset, int size)
{
    if (!buffer) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_non_volatile_r_memory_debug] Data area pointer is INVALID");
        return KESTA_ERR_ARGUMENT;
    }
    if (size == 0) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_non_volatile_r_memory_debug] Data Size is INVALID(Size=0)");
        return KESTA_ERR_ARGUMENT;
    }
    cpfw_nv_access_t access{buffer, static_cast<std::uint64_t>(offset), static_cast<std::uint64_t>(size)};
    for (int attempt = 0; attempt < kesta::nv_attempts; ++attempt) {
        const int result = zKTsanfwctl_read_nv(kesta::nv_handle, &region, &access, kesta::nv_access_count);
        if (result == 0) {
            TRACE(5, "[kestal_non_volatile_r_memory_debug] END ");
            return KESTA_OK;
        }
        FAILURE(PLATFORM, result, 1, "[kestal_non_volatile_r_memory_debug] [%d/%d] NV(memory) Read ERROR result=%d",
                attempt, kesta::nv_attempts, result);
        usleep(kesta::nv_retry_us);
    }
    TRACE(1, "[kestal_non_volatile_r_memory_debug] NV(memory) ACCESS ERROR ");
    return KESTA_ERR;
}

void kestal_non_volatile_dump(FILE *out, char *data, int length)
{
    if (!data) {
        return;
    }
    const auto *bytes = reinterpret_cast<const unsigned char *>(data);
    const std::size_t size = static_cast<std::size_t>(length > 0 ? length : 0);
    if (!out) {
        trace_lines(bytes, size);
        return;
    }
    write_lines(out, bytes, size);
}

int kestal_non_volatile_dumpout(char *file)
{
    TRACE(5, "[kestal_non_volatile_dumpout] start filename=%s", file ? file : "(null)");
    Output output(file);
    if (!output.usable()) {
        SYSTEM_FAILURE(error, 1, "[kestal_non_volatile_dumpout] fopen error. errno=%d filename=%s", error, file);
        return KESTA_ERR;
    }
    output.time_of_output();
    for (const DumpRegion &region : dump_regions) {
        if (dump_region(region, output) != KESTA_OK) {
            return KESTA_ERR;
        }
    }
    return end_output(output, "kestal_non_volatile_dumpout", KESTA_OK);
}

int kestal_non_volatile_dumpout_assign(char *file, int region, int offset, int size)
{
    const int pages = static_cast<int>((static_cast<long long>(size) + page_size) / page_size);
    Output output(file);
    if (!output.usable()) {
        SYSTEM_FAILURE(error, 1, "[kestal_non_volatile_dumpout_assign] fopen error. errno=%d filename=%s", error, file);
        return KESTA_ERR;
    }
    output.time_of_output();
    output.heading("***** NV MEMORY [region=%d/offset=%d/size=%d] *****\n", region, offset, size);
    const int result = dump_pages(region, offset, pages, output);
    return end_output(output, "kestal_non_volatile_dumpout_assign", result);
}
