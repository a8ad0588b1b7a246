// Archives as nobody's tar makes them.
#pragma once

#include <string>

namespace fuzz {

// The same tar, in which the checksum of each header is right: without that, hardly any change of
// one would get past the first look at it.
std::string with_checksums(std::string tar);

// A tar of members in lines: a letter for the kind (f file, d folder, l link, h second name, p
// FIFO), the path, the permissions in octal digits, the number of the owner, and the contents or
// the target; with tabs between them. What is missing is empty.
std::string tar_of_lines(const std::string &lines);

// As bzip2 packs it.
std::string packed(const std::string &tar);

}  // namespace fuzz
