#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "controller_state.h"
#include "kesta/area_files.h"
#include "kesta/process.h"
#include "opened_file.h"
#include "ownership.h"
#include "trace.h"

namespace {

constexpr std::size_t line_size = 21;  // 20 characters a read; a longer line reads as several
constexpr std::size_t code_digits = 2;
constexpr int highest_code = 64;

struct Group {
    const char *name;
    const char *code;
};

// Splits a line into name and code; false if it is no valid line.
bool split_line(char *line, Group &group)
{
    char *rest = nullptr;
    group.name = strtok_r(line, ",", &rest);
    if (!group.name) {
        FAILURE(CONTENT, 0, 1, "[get_allgroupname] Group name is NULL g_name=NULL");
        return false;
    }
    if (strlen(group.name) >= KESTA_GROUP_NAME_SIZE) {
        FAILURE(CONTENT, 0, 1, "[get_allgroupname] Group name size ERROR g_name=%s", group.name);
        return false;
    }
    group.code = strtok_r(nullptr, ",", &rest);
    if (!group.code) {
        TRACE(5, "[get_allgroupname] Group errorcd is NULL g_name=%s", group.name);
        group.code = "0";
    }
    if (strlen(group.code) > code_digits) {
        FAILURE(CONTENT, 0, 1, "[get_allgroupname] Group errorcd size ERROR g_name=%s g_errorcd=%s", group.name,
                group.code);
        return false;
    }
    if (kestal_isdigit(group.code) != KESTA_OK) {
        FAILURE(CONTENT, 0, 1, "[get_allgroupname] Group errorcd isdigit check ERROR g_name=%s g_errorcd=%s",
                group.name, group.code);
        return false;
    }
    return true;
}

// Stores the group as entry number count, counted from 1.
bool store_group(const Group &group, int count, char *names, int *errorcds)
{
    if (count > KESTA_GROUP_LIST_ENTRIES) {
        FAILURE(CONTENT, 0, 1, "[get_allgroupname] Group Number Over.");
        return false;
    }
    const int index = count - 1;
    char *entry = names + static_cast<std::size_t>(index) * KESTA_GROUP_NAME_SIZE;
    memset(entry, 0, KESTA_GROUP_NAME_SIZE);
    memcpy(entry, group.name, strnlen(group.name, KESTA_GROUP_NAME_SIZE));
    errorcds[index] = kesta::leading_int(group.code);
    if (errorcds[index] > highest_code) {
        FAILURE(CONTENT, 0, 1, "[get_allgroupname] Group error cd range check ERROR g_name=%s g_errorcd=%s", group.name,
                group.code);
        return false;
    }
    return true;
}

int read_groups(FILE *file, const char *path, char *names, int *errorcds)
{
    char line[line_size];
    int count = 0;
    while (fgets(line, sizeof(line), file)) {
        const std::size_t length = strlen(line);
        if (length > 0 && line[length - 1] == '\n') {
            line[length - 1] = '\0';
        }
        Group group{};
        if (!split_line(line, group) || !store_group(group, ++count, names, errorcds)) {
            return KESTA_ERR;
        }
    }
    if (ferror(file)) {
        FAILURE(CONTENT, 0, 1, "[get_allgroupname] fgets() ERROR f_name=%s", path);
        return KESTA_ERR;
    }
    return count;
}

}  // namespace

int kestal_get_groupname_from_file(char *names, int *errorcds, const char *file)
{
    TRACE(5, "[get_allgroupname] START");
    if (!names || !errorcds || !file) {
        FAILURE(ARGUMENT, 0, 1, "[get_allgroupname] Argument ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    TRACE(4, "[get_allgroupname] file open filename=%s", file);
    int result;
    {
        const kesta::FilePtr list(kesta::open_stream(file));
        if (!list) {
            SYSTEM_FAILURE(error, 1, "[get_allgroupname] File open Error f_name =%s, errno=%d", file, error);
            return KESTA_ERR;
        }
        result = read_groups(list.get(), file, names, errorcds);
    }
    TRACE(5, "[get_allgroupname] GroupName Get(groupnum=%d) ", result);
    return result;
}
