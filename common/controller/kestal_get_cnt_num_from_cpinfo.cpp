#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <array>
#include <cstddef>

#include "command_pipe.h"
#include "controller_state.h"
#include "kesta/controller.h"
#include "kesta/paths.h"
#include "kesta/process.h"
#include "ownership.h"
#include "trace.h"
#include "vrbapi.h"

namespace {

using kesta::PipePtr;

struct cnt_num_cpinfo_opt_t {
    const char *cmd_opt;
    int min;
    int max;
};

// The option number is the row's index.
constexpr std::array<cnt_num_cpinfo_opt_t, 6> cnt_num_cpinfo_opt{{
    {KESTA_CPINFO_PROGRAM " -i", 0, 3},
    {KESTA_CPINFO_PROGRAM " -N", 1, 4},
    {KESTA_CPINFO_PROGRAM " -b", 0, 2},
    {KESTA_EEPROM_PROGRAM " cp_wwn | cut -d '=' -f2", 0, 0},
    {KESTA_CPINFO_PROGRAM " -i", 0, 3},
    {KESTA_EEPROM_PROGRAM " cp_serial_number | cut -d '=' -f2", 0, 0},
}};

struct boot_mode_cpinfo_opt_t {
    const char *boot_mode_str;
    int booy_mode_val;  // spelled so on purpose
};

constexpr std::array<boot_mode_cpinfo_opt_t, 3> boot_mode_cpinfo_opt{{
    {"normal", KESTA_BOOT_NORMAL},
    {"suspend", KESTA_BOOT_SUSPEND},
    {"initconf", KESTA_BOOT_INITCONF},
}};

constexpr int unknown_boot_mode = -1;  // below the range, so the range check refuses it

int boot_mode_value(const char *word)
{
    for (const boot_mode_cpinfo_opt_t &row : boot_mode_cpinfo_opt) {
        if (strcmp(word, row.boot_mode_str) == 0) {
            return row.booy_mode_val;
        }
    }
    return unknown_boot_mode;
}

template <std::size_t Size>
void fill_eeprom_cache(char (&cache)[Size], const char *text)
{
    memset(cache, 0, sizeof(cache));
    memcpy(cache, text, strnlen(text, sizeof(cache) - 1));
}

int check_range(int value, int option)
{
    const cnt_num_cpinfo_opt_t &row = cnt_num_cpinfo_opt[static_cast<unsigned>(option)];
    if (value < row.min || value > row.max) {
        FAILURE(CONTENT, 0, 1, "[kestal_execute_command_by_popen] Get My CNT Number ERROR cnt_num=%d num_flag=%d",
                value, option);
        return KESTA_ERR_CPINFO;
    }
    TRACE(5, "[kestal_execute_command_by_popen] Get My CNT Number End. cnt_num=%d", value);
    return value;
}

int interpret_line(const char *text, int option)
{
    switch (option) {
    case KESTA_CPINFO_OWN_NUMBER:
    case KESTA_CPINFO_CONTROLLER_COUNT:
    case KESTA_CPINFO_OWN_NUMBER_NO_FILE:
        if (kestal_isdigit(text) != KESTA_OK) {
            FAILURE(CONTENT, 0, 1, "[kestal_execute_command_by_popen] isdigit check ERROR buf=%s", text);
            return KESTA_ERR_CPINFO;
        }
        return check_range(kesta::leading_int(text), option);
    case KESTA_CPINFO_BOOT_MODE:
        return check_range(boot_mode_value(text), option);
    case KESTA_CPINFO_EEPROM_WWN:
        fill_eeprom_cache(controller_state.eeprom_wwn, text);
        return KESTA_OK;
    default:
        fill_eeprom_cache(controller_state.eeprom_serialno, text);
        return KESTA_OK;
    }
}

// A command that printed a valid line and then failed is reported, and its value still counts.
void report_close(int status)
{
    if (((static_cast<unsigned>(status) >> 8 | static_cast<unsigned>(status)) & 0xffU) != 0) {
        FAILURE(COMMAND, status, 1, "[kestal_execute_command_by_popen] pclose error. status=0x%x",
                static_cast<unsigned>(status));
    }
}

int write_number(const char *path, int value, const char *what)
{
    _VRBAPIERRINFO error{};
    if (vrbapi_setint_to_file(path, value, &error) == 0) {
        return value;
    }
    FAILURE(SYSTEM, error.s_errno, 1, "[get_cnt_num_from_cpinfo] Failed to set %s to file. errno=%d", what,
            error.s_errno);
    return KESTA_ERR;
}

int own_number(int option)
{
    const int known = kesta::own_controller();
    int number = known >= 0 ? known : kestal_execute_command_by_popen(option);
    if (option == KESTA_CPINFO_OWN_NUMBER && number >= 0 && kesta::cached(controller_state.own_number_written) == -1) {
        number = write_number(KESTA_OWN_NUMBER_FILE, number, "cntno");
        if (number >= 0) {
            kesta::set_cached(controller_state.own_number_written, 0);
        }
    }
    kesta::set_cached(controller_state.own_number, number);
    return number;
}

int controller_count()
{
    int count = kestal_execute_command_by_popen(KESTA_CPINFO_CONTROLLER_COUNT);
    if (count > 0) {
        count = write_number(KESTA_CONTROLLER_COUNT_FILE, count, "cntnum");
    }
    kesta::set_cached(controller_state.count, count);
    return count;
}

// The environment can force Suspend and InitConf. Normal always comes from the command.
int forced_boot_mode()
{
    const char *text = secure_getenv("KESTA_CPMODE_STATUS");
    if (!text) {
        return KESTA_BOOT_NORMAL;
    }
    const int value = kesta::leading_int(text);
    const bool forced = value == KESTA_BOOT_SUSPEND || value == KESTA_BOOT_INITCONF;
    const int mode = forced ? value : KESTA_BOOT_NORMAL;
    TRACE(4, "[get_cnt_num_from_cpinfo] exemode(env)=%d", mode);
    return mode;
}

int boot_mode(int option)
{
    int mode = forced_boot_mode();
    if (mode == KESTA_BOOT_NORMAL) {
        mode = kestal_execute_command_by_popen(option);
    }
    kesta::set_cached(controller_state.boot_mode, mode);
    TRACE(4, "[get_cnt_num_from_cpinfo] exemode=%d", mode);
    return mode;
}

int read_lines(PipePtr &pipe, const char *command, char **output)
{
    for (int i = 0; output[i]; ++i) {
        PipePtr::Line line;
        if (!pipe.read_line(line)) {
            FAILURE(CONTENT, 0, 1, "[kestal_execute] fgets() Error. cmd=%s i=%d", command, i);
            return KESTA_ERR;
        }
        // No terminator is written: the caller's zeroed buffer supplies it.
        memcpy(output[i], line.data(), strlen(line.data()));
    }
    return KESTA_OK;
}

constexpr unsigned ended_by_signal(int status) { return static_cast<unsigned>(status) & 0xffU; }
constexpr int exit_code(int status) { return static_cast<int>(static_cast<unsigned>(status) >> 8 & 0xffU); }

// The status of closing a pipe again that has been closed: its exit code, and no signal. The
// stream itself is gone.
constexpr int close_again(int status) { return static_cast<int>(static_cast<unsigned>(status) & 0xff00U); }

}  // namespace

int kestal_execute_command_by_popen(int option)
{
    TRACE(5, "[kestal_execute_command_by_popen] START");
    if (static_cast<unsigned>(option) >= cnt_num_cpinfo_opt.size()) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_execute_command_by_popen] Argument ERROR(option=%d)", option);
        return KESTA_ERR_ARGUMENT;
    }
    PipePtr pipe(cnt_num_cpinfo_opt[static_cast<unsigned>(option)].cmd_opt);
    if (!pipe) {
        TRACE(1, "[kestal_execute_command_by_popen] cpinfo Command Exe Error");
        return KESTA_ERR_CPINFO;
    }
    int result = KESTA_ERR_CPINFO;
    PipePtr::Line line;
    if (pipe.read_line(line)) {
        result = interpret_line(line.data(), option);
    } else {
        TRACE(1, "[kestal_execute_command_by_popen] fgets() Error");
    }
    report_close(pipe.close());
    return result;
}

int kestal_get_cnt_num_from_cpinfo(int option)
{
    TRACE(5, "[get_cnt_num_from_cpinfo] START");
    int value;
    switch (option) {
    case KESTA_CPINFO_OWN_NUMBER:
    case KESTA_CPINFO_OWN_NUMBER_NO_FILE:
        value = own_number(option);
        break;
    case KESTA_CPINFO_CONTROLLER_COUNT:
        value = controller_count();
        break;
    default:
        value = boot_mode(option);
        break;
    }
    TRACE(5, "[get_cnt_num_from_cpinfo] END cnt_num=%d", value);
    return value;
}

int kestal_execute(const char *command, char **output)
{
    TRACE(5, "[kestal_execute] START");
    if (!command || !output) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_execute] Argument ERROR");
        return KESTA_ERR_ARGUMENT;
    }
    PipePtr pipe(command);
    if (!pipe) {
        TRACE(1, "[kestal_execute] popen() Error. cmd=%s", command);
        return KESTA_ERR;
    }
    const int read_result = read_lines(pipe, command, output);
    int status = pipe.close();
    while (ended_by_signal(status) != 0) {
        // The tag is another function's: logs are searched for it. The close is repeated until the status is no
        // signal's: programs count the lines of one command by that.
        FAILURE(COMMAND, status, 1, "[zKTmc_execute_cmd] cmd may fail. cmd=%s status=%x", command,
                static_cast<unsigned>(status));
        status = close_again(status);
    }
    return exit_code(status) != 0 ? exit_code(status) : read_result;
}
