// Archives as tests need them: whole ones, and what may happen to them.
#pragma once

#include <map>
#include <string>

namespace test {

// What bzip2 makes of bytes, in one stream.
std::string bzip2(const std::string &bytes);

// A tar of one file, with the mark behind it.
std::string tar_of(const std::string &name, const std::string &contents);

// The same with holes: where these texts are not, at their offsets, is nothing up to its size.
std::string tar_with_holes(const std::string &name, std::size_t size, const std::map<std::size_t, std::string> &texts);

// A whole archive; another one for each text.
std::string whole_archive(const std::string &text);

// The same with one byte flipped in its middle.
std::string with_flipped_byte(std::string archive);

}  // namespace test
