// How much XML a definition may be. Reading one takes time by the square of an element's attributes, so that
// half a megabyte of them keeps a reader busy for a minute; a definition with all of its 64 files and their
// links is far below these limits.
#pragma once

#include <string>

namespace engine {

// Before anything else reads the definition. Throws Failure: it can't be read, or is beyond a limit.
void require_moderate_definition(const std::string &path);

}  // namespace engine
