#include "settings.h"

#include <ctype.h>
#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "opened_file.h"
#include "scoped.h"

namespace platform {
namespace {

constexpr const char *default_file = "/etc/kesta/platform.conf";
constexpr const char *file_variable = "KESTA_PLATFORM_CONF";
constexpr const char *variable_prefix = "KESTA_PLATFORM_";

Settings current;
char problem[512];
pthread_once_t loaded = PTHREAD_ONCE_INIT;

// One setting: where its value goes, and what it accepts.
struct Row {
    const char *key;
    int *number;  // null for a text
    long *large;  // a number that an int can't hold
    long lowest;
    long highest;
    char *text;
    unsigned text_size;
};

#define NUMBER(name, lowest, highest)                              \
    {                                                              \
#name, &current.name, nullptr, lowest, highest, nullptr, 0 \
    }
#define LARGE(name, lowest, highest)                               \
    {                                                              \
#name, nullptr, &current.name, lowest, highest, nullptr, 0 \
    }
#define TEXT(name)                                                        \
    {                                                                     \
#name, nullptr, nullptr, 0, 0, current.name, sizeof(current.name) \
    }

const Row rows[] = {
    NUMBER(controller_number, 0, 3),
    NUMBER(controller_count, 1, 4),
    TEXT(boot_mode),
    NUMBER(master, 0, 3),
    TEXT(address_own),
    NUMBER(other_number, 0, 3),
    TEXT(address_other),
    TEXT(nv_dir),
    NUMBER(nv_regions, 1, 16),
    NUMBER(nv_sync, 0, 1),
    NUMBER(allow_shared_file_system, 0, 1),
    TEXT(status_file),
    TEXT(sysback_dir),
    TEXT(nv_endpoints),
    TEXT(sysback_endpoints),
    TEXT(etcd_prefix),
    TEXT(tls_ca),
    TEXT(tls_cert),
    TEXT(tls_key),
    NUMBER(connect_ms, 1, 10000),
    NUMBER(request_ms, 1, 10000),
    NUMBER(transfer_ms, 1, 10000),
    NUMBER(chunk_ms, 1, 60000),
    NUMBER(chunk_bytes, 4096, 1 << 20),
    NUMBER(upload_lease_s, 2, 3600),
    LARGE(sysback_limit_bytes, 1 << 20, LONG_MAX),
    NUMBER(sysback_quota_share, 1, 100),
    TEXT(trace_target),
    NUMBER(trace_level, 0, 5),
    TEXT(trace_file),
    NUMBER(trace_rotate_bytes, 4096, INT_MAX),
    NUMBER(trace_keep, 1, 99),
    TEXT(eeprom_file),
    TEXT(vpd_file),
    TEXT(fault_file),
};

#undef NUMBER
#undef LARGE
#undef TEXT

// What the file says of settings that one platform alone has.
struct PlatformSetting {
    char key[word_size];
    char value[path_size];
};
constexpr unsigned platform_settings_size = 16;
PlatformSetting platform_settings[platform_settings_size];
unsigned platform_settings_used = 0;

void note_problem(const char *where, const char *what, const char *key)
{
    if (problem[0] == '\0') {
        snprintf(problem, sizeof(problem), "%.200s: %s: %.100s", where, what, key);
    }
}

void set_number(const Row &row, const char *where, const char *value)
{
    char *end = nullptr;
    errno = 0;
    const long number = strtol(value, &end, 10);
    if (*value == '\0' || *end != '\0' || errno != 0 || number < row.lowest || number > row.highest) {
        note_problem(where, "not a usable number", row.key);
        return;
    }
    if (row.large) {
        *row.large = number;
    } else {
        *row.number = static_cast<int>(number);
    }
}

void set_value(const Row &row, const char *where, const char *value)
{
    if (row.number || row.large) {
        set_number(row, where, value);
    } else if (strlen(value) >= row.text_size) {
        note_problem(where, "value is too long", row.key);
    } else {
        memcpy(row.text, value, strlen(value) + 1);
    }
}

const Row *find_row(const char *key)
{
    for (const Row &row : rows) {
        if (strcmp(row.key, key) == 0) {
            return &row;
        }
    }
    return nullptr;
}

void keep_platform_setting(const char *path, const char *key, const char *value)
{
    if (platform_settings_used == platform_settings_size || strlen(key) >= word_size || strlen(value) >= path_size) {
        note_problem(path, "value is too long, or one setting too many", key);
        return;
    }
    PlatformSetting &kept = platform_settings[platform_settings_used++];
    memcpy(kept.key, key, strlen(key) + 1);
    memcpy(kept.value, value, strlen(value) + 1);
}

// The variable that overrides a setting.
struct Variable {
    char name[word_size + 32];

    explicit Variable(const char *key)
    {
        snprintf(name, sizeof(name), "%s%s", variable_prefix, key);
        for (char *c = name; *c != '\0'; ++c) {
            *c = *c == '.' ? '_' : static_cast<char>(toupper(static_cast<unsigned char>(*c)));
        }
    }
    const char *value() const { return secure_getenv(name); }
};

char *trimmed(char *text)
{
    while (isspace(static_cast<unsigned char>(*text))) {
        ++text;
    }
    char *end = text + strlen(text);
    while (end > text && isspace(static_cast<unsigned char>(end[-1]))) {
        *--end = '\0';
    }
    return text;
}

void read_line(char *line, const char *path)
{
    char *key = trimmed(line);
    if (*key == '\0' || *key == '#') {
        return;
    }
    char *equals = strchr(key, '=');
    if (!equals) {
        note_problem(path, "not of the form KEY = VALUE", key);
        return;
    }
    *equals = '\0';
    key = trimmed(key);
    if (strchr(key, '.')) {
        keep_platform_setting(path, key, trimmed(equals + 1));
    } else if (const Row *row = find_row(key)) {
        set_value(*row, path, trimmed(equals + 1));
    } else {
        note_problem(path, "unknown setting", key);
    }
}

void read_file(const char *path)
{
    FILE *file = kesta::above_standard(kesta::open_stream(path));
    if (!file) {
        if (kesta::may_wait(path)) {
            note_problem(path, "no plain file", "settings");
        }
        return;  // no file: the defaults hold
    }
    char line[512];
    while (fgets(line, sizeof(line), file)) {
        read_line(line, path);
    }
    (void)fclose(file);  // read only
}

void read_environment()
{
    for (const Row &row : rows) {
        const Variable variable(row.key);
        if (const char *value = variable.value()) {
            set_value(row, variable.name, value);
        }
    }
}

void load()
{
    const char *path = secure_getenv(file_variable);
    read_file(path ? path : default_file);
    read_environment();
}

}  // namespace

const Settings &settings()
{
    const kesta::CancelOff off;
    pthread_once(&loaded, load);
    return current;
}

const char *settings_problem()
{
    settings();
    return problem;
}

const char *platform_setting(const char *key)
{
    settings();
    if (const char *value = Variable(key).value()) {
        return value;
    }
    const char *found = nullptr;
    for (unsigned i = 0; i < platform_settings_used; ++i) {
        if (strcmp(platform_settings[i].key, key) == 0) {
            found = platform_settings[i].value;  // the last one counts, as with all settings
        }
    }
    return found;
}

TraceTarget trace_target()
{
    const char *word = settings().trace_target;
    if (strcmp(word, "stderr") == 0) {
        return TraceTarget::standard_error;
    }
    if (strcmp(word, "syslog") == 0) {
        return TraceTarget::system_log;
    }
    return strcmp(word, "none") == 0 ? TraceTarget::none : TraceTarget::file;
}

}  // namespace platform
