// Text that came from NV memory, archives or files, made safe for a terminal.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace engine {

// The same text, in which whatever a terminal would act on is shown as an escape: control characters but
// newline and tab, DEL, the C1 controls, the marks that turn the direction of writing, and bytes that are no
// UTF-8.
std::string printable(std::string_view text);

// A field's text in one line of ASCII: any other byte is shown as \xNN. For programs as well.
std::string plain_text(std::string_view text);

// Two digits a byte.
std::string hex(const std::vector<char> &bytes);

}  // namespace engine
