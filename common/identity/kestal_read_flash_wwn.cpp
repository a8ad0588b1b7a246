#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include <array>

#include "kesta/identity.h"
#include "kesta/paths.h"
#include "opened_file.h"
#include "ownership.h"
#include "text_line.h"
#include "trace.h"

namespace {

enum class Reading { done, missing, not_opened, empty };

// At most Size - 1 characters of the first line; a newline within them is kept.
template <std::size_t Size>
Reading read_first_line(const char *path, std::array<char, Size> &line, int &error)
{
    const kesta::FilePtr file(kesta::open_stream(path));
    error = errno;
    if (!file) {
        return error == ENOENT ? Reading::missing : Reading::not_opened;
    }
    errno = 0;
    const bool read = fgets(line.data(), Size, file.get()) != nullptr;
    error = errno;
    return read ? Reading::done : Reading::empty;
}

int write_line(int fd, const char *wwn, const char *function)
{
    const kesta::LineWritten line = kesta::write_line(fd, "%s\n", wwn);
    if (!line.made) {
        FAILURE(ARGUMENT, 0, 1, "[%s] Buffer Error.", function);
        return KESTA_ERR;
    }
    if (const kesta::TextWritten &result = line.text; !result.complete()) {
        FAILURE(SYSTEM, result.error, 1, "[%s] File Write Error f_name=%s len=%d result=%d errno=%d", function,
                KESTA_WWN_FILE, result.length, result.written, result.error);
        return KESTA_ERR;
    }
    return KESTA_OK;
}

}  // namespace

int kestal_read_flash_wwn(char *wwn)
{
    const char *function = __func__;
    TRACE(5, "[%s] Read Flash wwn Start.", function);
    if (!wwn) {
        FAILURE(ARGUMENT, 0, 1, "[%s] Argument Error.(wwn=NULL).", function);
        return KESTA_ERR_ARGUMENT;
    }
    std::array<char, KESTA_WWN_LENGTH + 1> line{};
    int error = 0;
    switch (read_first_line(KESTA_WWN_FILE, line, error)) {
    case Reading::missing:
        memset(wwn, 0, KESTA_WWN_LENGTH);
        TRACE(4, "[%s]  Flash wwn=''.", function);
        return KESTA_OK;
    case Reading::not_opened:
        FAILURE(SYSTEM, error, 1, "[%s] Flash wwn File(%s) Open Error. errno=%d", function, KESTA_WWN_FILE, error);
        return KESTA_ERR;
    case Reading::empty:
        FAILURE(SYSTEM, error, 1, "[%s] Flash wwn File(%s) Read Error. errno=%d", function, KESTA_WWN_FILE, error);
        return KESTA_ERR;
    case Reading::done:
        break;
    }
    memcpy(wwn, line.data(), line.size());
    TRACE(5, "[%s] Read Flash wwn End. wwn=%s", function, wwn);
    return KESTA_OK;
}

int kestal_set_flash_wwn(const char *wwn)
{
    const char *function = __func__;
    TRACE(5, "[%s] set Flash wwn Start.", function);
    if (!wwn) {
        FAILURE(ARGUMENT, 0, 1, "[%s] Argument Error.(wwn=NULL).", function);
        return KESTA_ERR_ARGUMENT;
    }
    int ret;
    {
        const kesta::UniqueFd file(
            kesta::open_at_once(KESTA_WWN_FILE, O_WRONLY | O_CREAT | O_TRUNC, kesta::new_text_file_mode));
        if (!file) {
            SYSTEM_FAILURE(error, 1, "[%s] Flash wwn File(%s) Open Error. errno=%d", function, KESTA_WWN_FILE, error);
            return KESTA_ERR;
        }
        ret = write_line(file.get(), wwn, function);
    }
    TRACE(5, "[%s] set Flash wwn End. ret=%d", function, ret);
    return ret;
}

int kestal_read_flash_guid(char *guid)
{
    TRACE(5, "[kestal_read_flash_guid] Start.");
    if (!guid) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_read_flash_guid] Argument Error.(guid=NULL).");
        return KESTA_ERR_ARGUMENT;
    }
    std::array<char, KESTA_GUID_TEXT_LENGTH + 1> line{};
    int error = 0;
    switch (read_first_line(KESTA_GUID_FILE, line, error)) {
    case Reading::missing:
        memset(guid, 0, KESTA_GUID_TEXT_LENGTH);
        TRACE(4, "[kestal_read_flash_guid]  Flash guid=''.");
        return KESTA_OK;
    case Reading::not_opened:
        FAILURE(SYSTEM, error, 1, "[kestal_read_flash_guid] Flash guid File(%s) Open Error. errno=%d", KESTA_GUID_FILE,
                error);
        return KESTA_ERR;
    case Reading::empty:
        FAILURE(SYSTEM, error, 1, "[kestal_read_flash_guid] Flash guid File(%s) Read Error. errno=%d", KESTA_GUID_FILE,
                error);
        return KESTA_ERR;
    case Reading::done:
        break;
    }
    memcpy(guid, line.data(), line.size());
    TRACE(5, "[kestal_read_flash_guid] End. guid=%s", guid);
    return KESTA_OK;
}
