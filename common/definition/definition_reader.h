// Names and sizes that the readers of a definition share.
#pragma once

#include <stdio.h>

#include <array>

#include "formed_text.h"
#include "kesta/backup_definition.h"

namespace kesta {

inline constexpr const char *group_element = "group";
inline constexpr const char *setinfo_element = "setinfo";
inline constexpr const char *file_element = "file";
inline constexpr const char *link_element = "link";
inline constexpr const char *permission_element = "permission";
inline constexpr const char *script_element = "script";
inline constexpr const char *backup_element = "backup";
inline constexpr const char *restore_element = "restore";

// How kestal_xml_get_property copies.
inline constexpr int copy_text = 0;
inline constexpr int copy_integer = 1;

using Expression = std::array<char, 128>;

template <typename... Names>
Expression expression_of(const char *format, Names... names)
{
    Expression expression{};
    (void)form(expression, format, names...);
    return expression;
}

// A text field of the record.
template <int Size>
int read_text(xmlNodePtr node, const char *name, char (&field)[Size])
{
    return kestal_xml_get_property(&node, name, field, Size, copy_text);
}

inline int read_integer(xmlNodePtr node, const char *name, int32_t &field)
{
    return kestal_xml_get_property(&node, name, reinterpret_cast<char *>(&field), sizeof(field), copy_integer);
}

}  // namespace kesta
