#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <optional>

#include "controllers.h"
#include "formed_text.h"
#include "kesta/backup_definition.h"
#include "kesta/process.h"
#include "kesta/shell_word.h"
#include "trace.h"

namespace {

constexpr const char *files_may_be_gone = "addremove";
constexpr uid_t owner_unchanged = static_cast<uid_t>(-1);
constexpr gid_t group_unchanged = static_cast<gid_t>(-1);
constexpr int lowest_mode = 1;
constexpr int highest_mode = 777;
constexpr int octal = 8;
constexpr int decimal = 10;

using LinkCommand = std::array<char, 1024>;

int to_number(const char *text) { return static_cast<int>(strtol(text, nullptr, decimal)); }

// A text that is 0 or begins with another number is an id.
std::optional<int> as_id(const char *text)
{
    const int number = to_number(text);
    if (number != 0 || strcmp(text, "0") == 0) {
        return number;
    }
    return std::nullopt;
}

int make_link(const char *link, const char *file)
{
    LinkCommand command{};
    (void)kesta::form(command, "rm %s; ln -s %s %s > /dev/null 2>&1", link, file, link);
    const int result =
        kesta_is_shell_word(link) && kesta_is_shell_word(file) ? kestal_exec_cmd_by_system(command.data()) : KESTA_ERR;
    if (result != KESTA_OK) {
        FAILURE(COMMAND, result, 1, "[change_fileprop] command(%s) ERROR result=%d", command.data(), result);
        return KESTA_ERR;
    }
    TRACE(5, "[change_fileprop] command(%s) OK result=%d", command.data(), result);
    return KESTA_OK;
}

int make_links(const KESTA_BACKUP_FILE_PATH &file)
{
    for (const auto &link : file.linkpath) {
        if (link[0] != '\0' && make_link(link, file.pathname) != KESTA_OK) {
            return KESTA_ERR;
        }
    }
    return KESTA_OK;
}

// One property of a file, and how the traces call it. "owner" stands in all of them.
struct Property {
    const char *title;
    const char *value;
    int (*change)(char *, const char *);
};

int change_properties(KESTA_BACKUP_FILE_PATH &file)
{
    const std::array<Property, 3> properties{{{"Owner", file.owner, kestal_change_owner},
                                              {"Group", file.group, kestal_change_group},
                                              {"FileMode", file.filemode, kestal_change_filemode}}};
    for (const Property &property : properties) {
        if (property.value[0] == '\0') {
            continue;
        }
        if (property.change(file.pathname, property.value) != KESTA_OK) {
            TRACE(1, "[change_fileprop] Set %s ERROR file=%s owner=%s", property.title, file.pathname, property.value);
            return KESTA_ERR;
        }
        TRACE(5, "[change_fileprop] Set %s OK file=%s owner=%s", property.title, file.pathname, property.value);
    }
    return KESTA_OK;
}

int change_file(KESTA_BACKUP_FILE_PATH &file, bool may_be_gone)
{
    struct stat status;
    if (stat(file.pathname, &status) != 0) {
        TRACE(5, "[change_fileprop] stat ERROR file=%s", file.pathname);
        if (may_be_gone) {
            TRACE(5, "[change_fileprop] (%s) is a delete file ---> CONTINUE", file.pathname);
            return KESTA_OK;
        }
        FAILURE(SYSTEM, ENOENT, 1, "[change_fileprop] (%s) is not found ---> FAILED", file.pathname);
        return KESTA_ERR;
    }
    if (make_links(file) != KESTA_OK) {
        return KESTA_ERR;
    }
    return change_properties(file);
}

}  // namespace

int kestal_change_fileprop(KESTA_BACKUP_FILE *definition, int cntno)
{
    TRACE(5, "[change_fileprop] START");
    if (!kesta::is_controller(cntno)) {
        FAILURE(ARGUMENT, 0, 1, "[change_fileprop] CntNo ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    if (!definition) {
        FAILURE(ARGUMENT, 0, 1, "[change_fileprop] BackupFile ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    const bool may_be_gone = strcmp(definition->operation, files_may_be_gone) == 0;
    for (int i = 0; i < KESTA_DEFINITION_FILES; ++i) {
        KESTA_BACKUP_FILE_PATH &file = definition->setfile[i];
        if (file.pathname[0] == '\0') {
            break;
        }
        TRACE(4, "[change_fileprop] [%d/%d] file=%s", i, KESTA_DEFINITION_FILES, file.pathname);
        if (change_file(file, may_be_gone) != KESTA_OK) {
            return KESTA_ERR;
        }
    }
    TRACE(5, "[change_fileprop] END");
    return KESTA_OK;
}

int kestal_change_owner(char *file, const char *owner)
{
    TRACE(5, "[change_owner] START");
    if (!file) {
        FAILURE(ARGUMENT, 0, 1, "[change_owner] FilePath ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    if (!owner) {
        FAILURE(ARGUMENT, 0, 1, "[change_owner] OwnerName ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    TRACE(5, "[change_owner] file=%s ownername=%s", file, owner);
    int id = 0;
    if (const std::optional<int> number = as_id(owner)) {
        id = *number;
    } else {
        errno = 0;
        const struct passwd *user = getpwnam(owner);
        if (!user) {
            SYSTEM_FAILURE(error, 1, "[change_owner] getpwnam(%s) ERROR errno=%d", owner, error);
            return KESTA_ERR_ARGUMENT;
        }
        id = static_cast<int>(user->pw_uid);
    }
    TRACE(5, "[change_owner] ...chown file=%s ownername=%s ownerid=%d", file, owner, id);
    errno = 0;
    const int rtn = chown(file, static_cast<uid_t>(id), group_unchanged);
    if (rtn != 0) {
        SYSTEM_FAILURE(error, 1, "[change_owner] chown ERROR file=%s ownername=%s ownerid=%d rtn=%d errno=%d", file,
                       owner, id, rtn, error);
        return KESTA_ERR_FILE_PROPERTY;
    }
    TRACE(5, "[change_owner] END");
    return KESTA_OK;
}

int kestal_change_group(char *file, const char *group)
{
    TRACE(5, "[change_group] START");
    if (!file) {
        FAILURE(ARGUMENT, 0, 1, "[change_group] FilePath ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    if (!group) {
        FAILURE(ARGUMENT, 0, 1, "[change_group] GroupName ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    TRACE(5, "[change_group] file=%s groupname=%s", file, group);
    int id = 0;
    if (const std::optional<int> number = as_id(group)) {
        id = *number;
    } else {
        TRACE(5, "[change_group] ...getgrnam file=%s group=%s", file, group);
        errno = 0;
        const struct group *entry = getgrnam(group);
        if (!entry) {
            SYSTEM_FAILURE(error, 1, "[change_group] getgrnam ERROR group=%s errno=%d", group, error);
            return KESTA_ERR_ARGUMENT;
        }
        id = static_cast<int>(entry->gr_gid);
    }
    TRACE(5, "[change_group] ...chown file=%s group=%s groupid=%d", file, group, id);
    errno = 0;
    const int rtn = chown(file, owner_unchanged, static_cast<gid_t>(id));
    if (rtn != 0) {
        SYSTEM_FAILURE(error, 1, "[change_group] chown ERROR file=%s group=%s groupid=%d rtn=%d errno=%d", file, group,
                       id, rtn, error);
        return KESTA_ERR_FILE_PROPERTY;
    }
    TRACE(5, "[change_group] END");
    return KESTA_OK;
}

int kestal_change_filemode(char *file, const char *mode)
{
    TRACE(5, "[change_filemode] START");
    if (!file) {
        FAILURE(ARGUMENT, 0, 1, "[change_filemode] FilePath ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    if (!mode) {
        FAILURE(ARGUMENT, 0, 1, "[change_filemode] FileMode ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    TRACE(5, "[change_filemode] FilePath=%s, FileMode=%s", file, mode);
    if (kestal_isdigit(mode) != KESTA_OK) {
        FAILURE(CONTENT, 0, 1, "[change_filemode] isdigit check ERROR filemode=%s", mode);
        return KESTA_ERR;
    }
    // The range is that of the decimal reading; what is applied is the octal one, up to the first 8
    // or 9.
    const int read_as_decimal = to_number(mode);
    if (read_as_decimal < lowest_mode || read_as_decimal > highest_mode) {
        FAILURE(ARGUMENT, 0, 1, "[change_filemode] FileMode ERROR modeidint=%d", read_as_decimal);
        return KESTA_ERR_ARGUMENT;
    }
    TRACE(5, "[change_filemode] FileMode=%d", read_as_decimal);
    errno = 0;
    const int rtn = chmod(file, static_cast<mode_t>(strtol(mode, nullptr, octal)));
    if (rtn != 0) {
        SYSTEM_FAILURE(error, 1, "[change_filemode] FileMode Change ERROR rtn =%d,errno=%d", rtn, error);
        return KESTA_ERR_FILE_PROPERTY;
    }
    TRACE(5, "[change_filemode] END");
    return KESTA_OK;
}
