#include <stdio.h>
#include <string.h>

#include <array>

#include "controller_state.h"
#include "formed_text.h"
#include "kesta/controller.h"
#include "kesta/identity.h"
#include "kesta/paths.h"
#include "kesta/process.h"
#include "kesta/shell_word.h"
#include "storage_places.h"
#include "trace.h"
#include "vpd_tool.h"

namespace {

constexpr const char *model_command = KESTA_EEPROM_PROGRAM " MODEL | cut -d '=' -f2";

const char *or_null(const char *text) { return text ? text : "NULL"; }

// At most so many characters of a cache, and NULs up to there.
void copy_cache(const char *cache, char *to, std::size_t length)
{
    const std::size_t used = strnlen(cache, length);
    memcpy(to, cache, used);
    memset(to + used, 0, length - used);
}

// One value that the VPD tool prints: a line that is longer than the value is cut.
struct Value {
    char *buffer;
    std::size_t length;
    kesta::VpdLine line{};

    void store()
    {
        if (line[0] == '\0') {
            return;  // no line came: the buffer stays as it was
        }
        const std::size_t used = strnlen(line.data(), length);
        memcpy(buffer, line.data(), used);
        buffer[used] = '\0';
    }
};

using Values = std::array<Value, 3>;  // WWN, serial number, GUID

int read_values(Values values)
{
    TRACE(5, "[kestal_get_vpn_info] START");
    kesta::CommandLine command{};
    (void)kesta::form(command, "%s -r 2> /dev/null", KESTA_VPD_TOOL);
    std::array<char *, values.size() + 1> output{};
    std::size_t wanted = 0;  // a null buffer ends the list
    while (wanted < values.size() && values[wanted].buffer) {
        output[wanted] = values[wanted].line.data();
        ++wanted;
    }
    const int ret = kestal_execute(command.data(), output.data());
    for (std::size_t i = 0; i < wanted; ++i) {
        values[i].store();
    }
    if (ret != KESTA_OK) {
        TRACE(1, "[kestal_get_vpn_info] kestal_execute(%s) error. ret=%d", command.data(), ret);
    }
    const auto shown = [&values](std::size_t i) {
        return static_cast<int>(values[i].length);
    };
    TRACE(3, "[kestal_get_vpn_info] END p_wwn=[%.*s] p_serialno=[%.*s] p_guid=[%.*s] ret=[%d]", shown(0),
          or_null(values[0].buffer), shown(1), or_null(values[1].buffer), shown(2), or_null(values[2].buffer), ret);
    return ret;
}

// An option of the VPD tool and its text, appended to a command line; false if it doesn't fit.
bool append_option(kesta::CommandLine &command, const char *option, const char *text)
{
    if (!text) {
        return true;
    }
    const std::size_t used = strlen(command.data());
    const int length = snprintf(command.data() + used, command.size() - used, "%s%s", option, text);
    return length >= 0 && static_cast<std::size_t>(length) < command.size() - used;
}

bool form_write_command(kesta::CommandLine &command, const char *wwn, const char *serialno, const char *guid)
{
    return append_option(command, "", KESTA_VPD_TOOL) && append_option(command, " -w ", wwn) &&
           append_option(command, " -s ", serialno) && append_option(command, " -g ", guid) &&
           append_option(command, "", " > /dev/null 2>&1");
}

}  // namespace

int kestal_get_wwn_by_eeprom(char *wwn)
{
    TRACE(5, "[kestal_get_wwn_by_eeprom] START");
    if (!wwn) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_get_wwn_by_eeprom] Argument Error.(wwn=NULL).");
        return KESTA_ERR_ARGUMENT;
    }
    const int ret = kestal_execute_command_by_popen(KESTA_CPINFO_EEPROM_WWN);
    if (ret != KESTA_OK) {
        // The tag of the function that asks the platform: who looks in logs for failures of cpinfo and eeprom
        // searches for that one.
        TRACE(1, "[get_cnt_num_from_cpinfo] Failed to get wwn. ret=%d", ret);
    } else {
        copy_cache(controller_state.eeprom_wwn, wwn, KESTA_WWN_LENGTH);
    }
    TRACE(5, "[kestal_get_wwn_by_eeprom] END wwn=[%s] ret=[%d]", controller_state.eeprom_wwn, ret);
    return ret;
}

int kestal_get_serialno_by_eeprom(char *serialno)
{
    TRACE(5, "[kestal_get_serialno_by_eeprom] START");
    if (!serialno) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_get_serialno_by_eeprom] Argument Error.(serialnumber=NULL).");
        return KESTA_ERR_ARGUMENT;
    }
    const int ret = kestal_execute_command_by_popen(KESTA_CPINFO_EEPROM_SERIALNO);
    if (ret != KESTA_OK) {
        TRACE(1, "[kestal_get_serialno_by_eeprom] Failed to get serialnumber. ret=%d", ret);
    } else {
        copy_cache(controller_state.eeprom_serialno, serialno, KESTA_SERIALNO_LENGTH);
    }
    TRACE(5, "[kestal_get_serialno_by_eeprom] END serialnumber=[%s] ret=[%d]", controller_state.eeprom_serialno, ret);
    return ret;
}

int kestal_get_model_by_eeprom(char *model)
{
    TRACE(5, "[kestal_get_model_by_eeprom] START");
    std::array<char *, 2> output{model, nullptr};
    const int ret = kestal_execute(model_command, output.data());
    if (ret != KESTA_OK) {
        TRACE(1, "[kestal_get_model_by_eeprom] kestal_execute(%s) error. ret=%d", model_command, ret);
    }
    TRACE(5, "[kestal_get_model_by_eeprom] END p_model=[%.63s] ret=[%d]", or_null(model), ret);
    return ret;
}

int kesta::read_vpd_tool(char *wwn, char *serialno, char *guid)
{
    constexpr std::size_t whole_line = VpdLine().size() - 1;
    return read_values({{{wwn, whole_line}, {serialno, whole_line}, {guid, whole_line}}});
}

int kestal_get_vpn_info(char *wwn, char *serialno, char *guid)
{
    return read_values({{{wwn, KESTA_WWN_LENGTH}, {serialno, KESTA_SERIALNO_LENGTH}, {guid, KESTA_GUID_TEXT_LENGTH}}});
}

int kestal_set_vpn_info(const char *wwn, const char *serialno, const char *guid)
{
    TRACE(5, "[kestal_set_vpn_info] START");
    if (!kesta_is_shell_word(wwn) || !kesta_is_shell_word(serialno) || !kesta_is_shell_word(guid)) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_set_vpn_info] Argument Error.(a character that a shell would act on)");
        return KESTA_ERR_ARGUMENT;
    }
    kesta::CommandLine command{};
    if (!form_write_command(command, wwn, serialno, guid)) {
        FAILURE(ARGUMENT, 0, 1, "[kestal_set_vpn_info] Argument Error.(command too long)");
        return KESTA_ERR_ARGUMENT;
    }
    char *no_output = nullptr;
    const int ret = kestal_execute(command.data(), &no_output);
    if (ret != KESTA_OK) {
        TRACE(1, "[kestal_set_vpn_info] kestal_execute(%s) error. ret=%d", command.data(), ret);
    }
    TRACE(3, "[kestal_set_vpn_info] END p_wwn=[%s] p_serialno=[%s] p_guid=[%s] ret=[%d]", or_null(wwn),
          or_null(serialno), or_null(guid), ret);
    return ret;
}
