#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include <array>

#include "formed_text.h"
#include "kesta/paths.h"
#include "kesta/process.h"
#include "kesta/remote_scripts.h"
#include "kesta/shell_word.h"
#include "opened_file.h"
#include "ownership.h"
#include "storage_places.h"
#include "text_line.h"
#include "trace.h"

namespace {

constexpr std::size_t pattern_length = 63;  // characters of a command that pgrep looks for
constexpr int last_poll = 149;
constexpr int first_copy_step = 3;

// The command of one step.
class StepCommand {
public:
    // Forms the command, or its beginning; false if it doesn't fit.
    template <typename... Values>
    bool form(const char *format, Values... values)
    {
        text_ = {};
        return kesta::form(text_, format, values...);
    }

    bool add_word(const char *word)
    {
        const std::size_t used = strlen(text_.data());
        const std::size_t length = strlen(word);
        if (used + length + 1 >= text_.size()) {
            return false;
        }
        memcpy(text_.data() + used, word, length);
        text_[used + length] = ' ';
        return true;
    }

    const char *text() const { return text_.data(); }

private:
    std::array<char, 512> text_{};
};

// A script that is being built, step by step.
class Script {
public:
    Script() { kestal_strcat(text_.out(), text_.capacity(), "#!/bin/sh\n"); }

    // Runs the command in the background and waits for its end, not longer than 150 polls.
    void add_step(const char *command, int exit_code)
    {
        std::array<char, pattern_length + 1> pattern{};
        memcpy(pattern.data(), command, strnlen(command, pattern_length));
        char **text = text_.out();
        int *capacity = text_.capacity();
        kestal_strcat(text, capacity, "pfexec su vndrmnt -c \"%s\" & \n", command);
        kestal_strcat(text, capacity, "sleep 0.1\n");
        kestal_strcat(text, capacity, "ii=0\n");
        kestal_strcat(text, capacity, "while [ 1 ]\ndo\n");
        kestal_strcat(text, capacity, "ii=`expr $ii + 1`\n");
        kestal_strcat(text, capacity, "PID=`pgrep -f \"%s\"`\n", pattern.data());
        kestal_strcat(text, capacity, "if [ ! \"$PID\" ]; then\n\tbreak\nfi\n");
        kestal_strcat(text, capacity, "if [ $ii -gt %d ]; then\n", last_poll);
        kestal_strcat(text, capacity, "\tkill -9 $PID\n\texit %d\nfi\nsleep 0.1\ndone\n", exit_code);
    }

    void end() { kestal_strcat(text_.out(), text_.capacity(), "exit 0\n"); }

    bool made() const { return text_.made(); }
    const char *text() const { return text_.text(); }

private:
    kesta::TextBuffer text_;
};

// The list of files that a script brings over.
struct FileList {
    int cnt;
    char *const *files;
    int n;  // index of the last one; negative: there are none
};

// A step whose command ends in all the files.
bool add_list_step(Script &script, const FileList &list, const char *remote_command, int exit_code)
{
    StepCommand command;
    bool fits = command.form("/usr/bin/rsh -l vndrmnt CNT%d pfexec %s ", list.cnt, remote_command);
    for (int i = 0; i <= list.n && fits; ++i) {
        fits = command.add_word(list.files[i]);
    }
    if (fits) {
        script.add_step(command.text(), exit_code);
    }
    return fits;
}

bool add_copy_steps(Script &script, const FileList &list)
{
    for (int i = 0; i <= list.n; ++i) {
        StepCommand command;
        if (!command.form("/usr/bin/rcp -p %s vndrmnt@CNT%d:%s", list.files[i], list.cnt, list.files[i])) {
            return false;
        }
        // These codes run on without regard to the fixed ones behind them.
        script.add_step(command.text(), first_copy_step + i);
    }
    return true;
}

bool build(Script &script, const FileList &list)
{
    const bool fits = add_list_step(script, list, "touch", 1) &&
                      add_list_step(script, list, "chown vndrmnt:vndrmnt", 2) && add_copy_steps(script, list) &&
                      add_list_step(script, list, "chown root:root", 6) && add_list_step(script, list, "chmod 644", 7);
    script.end();
    return fits;
}

int open_script(const char *path)
{
    return kesta::open_at_once(path, O_RDWR | O_CREAT | O_TRUNC, kesta::new_text_file_mode);
}

bool has_names(const FileList &list)
{
    for (int i = 0; i <= list.n; ++i) {
        if (!list.files || !list.files[i] || !kesta_is_shell_word(list.files[i])) {
            return false;
        }
    }
    return true;
}

int write_samefile_script(int fd, const FileList &list)
{
    for (int i = 0; i <= list.n; ++i) {
        TRACE(4, "[make_rsh_samefilename_script] filename(%d/%d)=%s", i, list.n, list.files[i]);
    }
    Script script;
    if (!build(script, list)) {
        FAILURE(ARGUMENT, 0, 1, "[make_rsh_samefilename_script] Buffer ERROR");
        return KESTA_ERR;
    }
    const kesta::TextWritten result = kesta::write_text(fd, script.text());
    if (!result.complete() || !script.made()) {
        FAILURE(SYSTEM, result.error, 1,
                "[make_rsh_samefilename_script] File Write Error filename=%s len=%d result=%d errno=%d",
                KESTA_SAMEFILE_SCRIPT, result.length, result.written, result.error);
        return KESTA_ERR;
    }
    return KESTA_OK;
}

void build_tarz(Script &script, int cnt)
{
    const char *directory = KESTA_FLASH_DIRECTORY;
    const char *accept = KESTA_ACCEPT_ARCHIVE;
    const char *backup = KESTA_BACKUP_ARCHIVE;
    StepCommand command;
    command.form("/usr/bin/rsh -l vndrmnt CNT%d pfexec chown vndrmnt:vndrmnt %s%s %s%s", cnt, directory, accept,
                 directory, backup);
    script.add_step(command.text(), 1);
    command.form("/usr/bin/rsh -l vndrmnt CNT%d pfexec cp -p %s%s %s%s", cnt, directory, accept, directory, backup);
    script.add_step(command.text(), 2);
    // The accept archive twice: the backup archive is left to vndrmnt, which distributes the next one over it.
    command.form("/usr/bin/rsh -l vndrmnt CNT%d pfexec chown root:root %s%s %s%s", cnt, directory, accept, directory,
                 accept);
    script.add_step(command.text(), 3);
    script.end();
}

int write_tarz_script(int fd, int cnt)
{
    Script script;
    build_tarz(script, cnt);
    if (!script.made()) {
        FAILURE(ARGUMENT, 0, 1, "[make_rsh_tarz_script] Buffer ERROR");
        return KESTA_ERR;
    }
    const kesta::TextWritten result = kesta::write_text(fd, script.text());
    if (!result.complete()) {
        FAILURE(SYSTEM, result.error, 1,
                "[make_rsh_tarz_script] File Write Error filename=%s len=%d result=%d errno=%d", KESTA_TARZ_SCRIPT,
                result.length, result.written, result.error);
        return KESTA_ERR;
    }
    return KESTA_OK;
}

}  // namespace

int kestal_make_rsh_samefilename_script(int cnt, char **files, int n)
{
    int ret = KESTA_OK;
    TRACE(5, "[make_rsh_samefilename_script] START ret=%d", ret);
    const FileList list{cnt, files, n};
    if (!has_names(list)) {
        FAILURE(ARGUMENT, 0, 1, "[make_rsh_samefilename_script] Argument ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    {
        const kesta::UniqueFd file(open_script(KESTA_SAMEFILE_SCRIPT));
        if (!file) {
            SYSTEM_FAILURE(error, 1, "[make_rsh_samefilename_script] File(%s) Open Failed. errno=%d",
                           KESTA_SAMEFILE_SCRIPT, error);
            return KESTA_ERR;
        }
        ret = write_samefile_script(file.get(), list);
    }
    TRACE(5, "[make_rsh_samefilename_script] END ret=%d", ret);
    return ret;
}

int kestal_make_rsh_tarz_script(int cnt)
{
    int ret = KESTA_OK;
    TRACE(5, "[make_rsh_tarz_script] START ret=%d", ret);
    {
        const kesta::UniqueFd file(open_script(KESTA_TARZ_SCRIPT));
        if (!file) {
            SYSTEM_FAILURE(error, 1, "[make_rsh_tarz_script] File(%s) Open Failed. errno=%d", KESTA_TARZ_SCRIPT, error);
            return KESTA_ERR;
        }
        ret = write_tarz_script(file.get(), cnt);
    }
    TRACE(5, "[make_rsh_tarz_script] END ret=%d", ret);
    return ret;
}
