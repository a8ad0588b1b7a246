// What commands found, as the parts of a page for a browser. All text is escaped, whoever told it.
#pragma once

#include <string>

#include "json_value.h"

namespace kestactl {

using engine::Json;

std::string escaped(const std::string &text);

// A value as a reader wants it: texts bare, what is missing as a dash.
std::string cell(const Json &value);

std::string section(const std::string &title, const std::string &body);

// Of what verify found: what is not in order, with the commands that mend it, and each subject with its places.
std::string disagreements(const Json &verified);
std::string subjects_table(const Json &verified);
std::string drift_text(const Json &verified);

// Of the status.
std::string controller_table(const Json &status);
std::string locks_table(const Json &status);
std::string archives_table(const Json &status);

std::string versions_table(const Json &versions);

// Of the NV image: one square a byte, and a row a field.
std::string image_map(const Json &image);
std::string image_fields_table(const Json &image);

// Of all controllers, of this one's identity, of the mirrored items, and of the generations, newest first.
std::string controllers_table(const Json &appliance);
std::string board_table(const Json &board);
std::string mirror_text(const Json &mirror);
std::string time_line(const Json &kept);

}  // namespace kestactl
