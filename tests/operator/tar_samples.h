// Archives as tests need them: whole ones, and what may happen to them.
#pragma once

#include <string>

namespace test {

// What bzip2 makes of bytes, in one stream.
std::string bzip2(const std::string &bytes);

// A tar of one file, with the mark behind it.
std::string tar_of(const std::string &name, const std::string &contents);

// A whole archive; another one for each text.
std::string whole_archive(const std::string &text);

// The same with one byte flipped in its middle.
std::string with_flipped_byte(std::string archive);

}  // namespace test
