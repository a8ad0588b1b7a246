#include "identity_state.h"

#include <fcntl.h>
#include <kesta/kesta.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <iostream>

#include "appliance_state.h"
#include "failure.h"
#include "kesta/paths.h"
#include "trace_capture.h"
#include "whole_file.h"

namespace engine {
namespace {

constexpr const char *look = "Look at --trace 1 for the failed call.";

template <std::size_t Size>
std::string text_of(const std::array<char, Size> &buffer)
{
    return {buffer.data(), strnlen(buffer.data(), buffer.size())};
}

std::string lower_case(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// What the platform's commands complain of while this lives is not shown, unless traces are: a value that nobody has
// set is no failure here, and the library traces what failed.
class QuietCommands {
public:
    QuietCommands() : shown_(traces_are_shown() ? -1 : fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3))
    {
        const int nothing = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (shown_ >= 0 && nothing >= 0) {
            std::cerr << std::flush;
            (void)dup2(nothing, STDERR_FILENO);
        }
        if (nothing >= 0) {
            (void)close(nothing);  // nothing was written to it
        }
    }
    ~QuietCommands()
    {
        if (shown_ >= 0) {
            (void)dup2(shown_, STDERR_FILENO);
            (void)close(shown_);  // its copy stays
        }
    }
    QuietCommands(const QuietCommands &) = delete;
    QuietCommands &operator=(const QuietCommands &) = delete;

private:
    int shown_;
};

Identity from_eeprom()
{
    const QuietCommands quiet;
    std::array<char, KESTA_WWN_LENGTH + 1> wwn{};
    std::array<char, KESTA_SERIALNO_LENGTH + 1> serialno{};
    const bool has_wwn = kestal_get_wwn_by_eeprom(wwn.data()) == KESTA_OK;
    const bool has_serialno = kestal_get_serialno_by_eeprom(serialno.data()) == KESTA_OK;
    return {has_wwn ? text_of(wwn) : "", has_serialno ? text_of(serialno) : "", std::nullopt};
}

Identity from_vpd()
{
    std::array<char, KESTA_WWN_LENGTH + 1> wwn{};
    std::array<char, KESTA_SERIALNO_LENGTH + 1> serialno{};
    std::array<char, KESTA_GUID_TEXT_LENGTH + 1> guid{};
    if (kestal_get_vpn_info(wwn.data(), serialno.data(), guid.data()) != KESTA_OK) {
        return {"", "", ""};
    }
    return {text_of(wwn), text_of(serialno), lower_case(text_of(guid))};
}

Identity from_flash()
{
    std::array<char, KESTA_WWN_LENGTH + 1> wwn{};
    std::array<char, KESTA_GUID_TEXT_LENGTH + 1> guid{};
    const bool has_wwn = kestal_read_flash_wwn(wwn.data()) == KESTA_OK;
    const bool has_guid = kestal_read_flash_guid(guid.data()) == KESTA_OK;
    return {has_wwn ? text_of(wwn) : "", std::nullopt, has_guid ? lower_case(text_of(guid)) : ""};
}

// The bytes of a block in one of its places; empty if it can't be read there.
std::vector<char> block_bytes(const char *name, From from)
{
    try {
        return read_block(find_block(name), from).bytes;
    } catch (const Failure &) {
        return {};
    }
}

std::string block_text(const char *name, From from)
{
    const std::vector<char> bytes = block_bytes(name, from);
    if (bytes.empty()) {
        return "";
    }
    return {bytes.data(), strnlen(bytes.data(), std::min<std::size_t>(bytes.size(), 16))};
}

std::string block_guid(From from)
{
    const std::vector<char> bytes = block_bytes("guid", from);
    if (bytes.size() < KESTA_GUID_BYTES || all_zero(bytes)) {
        return "";
    }
    std::array<char, KESTA_GUID_TEXT_LENGTH + 1> text{};
    (void)kestal_guid_bin2str(bytes.data(), text.data());  // it has no way to fail
    return text_of(text);
}

Identity from_image(From from) { return {block_text("wwn", from), block_text("serialno", from), block_guid(from)}; }

void check_sixteen(const std::string &text, const std::string &what)
{
    if (text.size() != KESTA_WWN_LENGTH || kesta_is_shell_word(text.c_str()) == 0 || text[0] == '-') {
        throw Failure(Exit::usage, "bad-identity", "'" + text + "' is no " + what + ".",
                      "It has exactly 16 letters, digits or characters of . _ : + - = / @ , % ^ # ~, and "
                      "begins with none of - # ~.");
    }
}

void set_block(const char *name, std::vector<char> bytes)
{
    const Block &block = find_block(name);
    bytes.resize(block.written, '\0');
    write_block(block, bytes);
}

}  // namespace

Identity read_identity(Place place)
{
    switch (place) {
    case Place::eeprom:
        return from_eeprom();
    case Place::vpd:
        return from_vpd();
    case Place::flash:
        return from_flash();
    case Place::memory:
        return from_image(From::memory);
    case Place::disk:
        break;
    }
    return from_image(From::sysback);
}

Identity running_identity()
{
    Identity identity = from_eeprom();
    identity.guid = from_flash().guid;
    return identity;
}

Identity shared_identity() { return from_image(From::both); }

bool is_whole(const Identity &identity)
{
    std::array<char, KESTA_GUID_BYTES> bytes{};
    return identity.wwn && identity.wwn->size() == KESTA_WWN_LENGTH && identity.serialno &&
           identity.serialno->size() == KESTA_SERIALNO_LENGTH && identity.guid &&
           kestal_guid_str2bin(identity.guid->c_str(), bytes.data()) == KESTA_OK;
}

void check_wwn(const std::string &text) { check_sixteen(text, "WWN"); }
void check_serialno(const std::string &text) { check_sixteen(text, "serial number"); }

void check_guid(const std::string &text)
{
    std::array<char, KESTA_GUID_BYTES> bytes{};
    if (kestal_guid_str2bin(text.c_str(), bytes.data()) != KESTA_OK) {
        throw Failure(Exit::usage, "bad-identity", "'" + text + "' is no GUID.",
                      "It has 36 characters: hexadecimal digits in groups of 8, 4, 4, 4 and 12, with "
                      "'-' between them.");
    }
}

void set_eeprom(const Identity &identity)
{
    std::string command = KESTA_EEPROM_PROGRAM;
    command += identity.wwn ? " cp_wwn=" + *identity.wwn : "";
    command += identity.serialno ? " cp_serial_number=" + *identity.serialno : "";
    if (kestal_exec_cmd_by_system(command.c_str()) != KESTA_OK) {
        throw Failure(Exit::platform, "eeprom-failed", "The eeprom was not set.",
                      std::string("Run '") + command + "' by hand, and see what it says.");
    }
}

void set_vpd(const Identity &identity)
{
    const auto text = [](const std::optional<std::string> &value) {
        return value ? value->c_str() : nullptr;
    };
    if (kestal_set_vpn_info(text(identity.wwn), text(identity.serialno), text(identity.guid)) != KESTA_OK) {
        throw Failure(Exit::platform, "vpd-failed", "The VPD tool did not take the identity.", look);
    }
}

void set_flash(const Identity &identity)
{
    if (identity.wwn && kestal_set_flash_wwn(identity.wwn->c_str()) != KESTA_OK) {
        throw Failure(Exit::platform, "write-failed", KESTA_WWN_FILE " was not written.", look);
    }
    if (identity.guid) {
        write_file_whole(KESTA_GUID_FILE, *identity.guid + "\n");
    }
}

void set_image(const Identity &identity)
{
    if (identity.wwn) {
        set_block("wwn", {identity.wwn->begin(), identity.wwn->end()});
    }
    if (identity.serialno) {
        set_block("serialno", {identity.serialno->begin(), identity.serialno->end()});
    }
    if (identity.guid) {
        std::vector<char> bytes(KESTA_GUID_BYTES);
        if (kestal_guid_str2bin(identity.guid->c_str(), bytes.data()) == KESTA_OK) {
            set_block("guid", bytes);
        }
    }
}

std::string host_name_by(const std::string &wwn, int controller) { return wwn + "-" + std::to_string(controller); }

std::string first_line(const std::string &path)
{
    const std::string text = read_settings(path);
    return text.substr(0, text.find('\n'));
}

}  // namespace engine
