// The identity of a controller in all the places that keep it.
#pragma once

#include <array>
#include <optional>
#include <string>

namespace engine {

// A value that is missing is empty; nothing: the place doesn't keep it.
struct Identity {
    std::optional<std::string> wwn;
    std::optional<std::string> serialno;
    std::optional<std::string> guid;  // as text, in lower case

    bool operator==(const Identity &) const = default;
};

enum class Place { eeprom, vpd, flash, memory, disk };

struct PlaceName {
    Place place;
    const char *key;
    const char *title;
};
inline constexpr std::array<PlaceName, 5> identity_places{{
    {Place::eeprom, "eeprom", "eeprom"},
    {Place::vpd, "vpd", "VPD tool"},
    {Place::flash, "flash", "flash files"},
    {Place::memory, "memory", "NV memory"},
    {Place::disk, "disk", "system backup area"},
}};

// What a place holds; what can't be read there is empty.
Identity read_identity(Place place);

// What this controller runs with: eeprom and GUID file.
Identity running_identity();

// What all controllers share: the NV image, the disk's copy first.
Identity shared_identity();

// Whether each value has its length and form: 16 characters, 16 characters, a GUID.
bool is_whole(const Identity &identity);

// Throw Failure for a text that is none.
void check_wwn(const std::string &text);
void check_serialno(const std::string &text);
void check_guid(const std::string &text);

// Each sets what is given, in one place. Throw Failure.
void set_eeprom(const Identity &identity);
void set_vpd(const Identity &identity);
void set_flash(const Identity &identity);
void set_image(const Identity &identity);

// The name that a controller has by its WWN.
std::string host_name_by(const std::string &wwn, int controller);

// The first line of a file; empty if it can't be read. Throws Failure: it is no plain file.
std::string first_line(const std::string &path);

}  // namespace engine
