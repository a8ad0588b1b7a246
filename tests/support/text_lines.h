// A text by its lines.
#pragma once

#include <sstream>
#include <string>
#include <vector>

namespace test {

inline std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace test
