#include "text_file.h"

#include <fstream>
#include <iterator>

#include "private_namespace.h"

namespace lab {

namespace fs = std::filesystem;

std::string read_file(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const fs::path &path, const std::string &text)
{
    std::ofstream file(path);
    file << text;
    file.flush();
    if (!file) {
        throw Error("can't write " + path.string());
    }
}

}  // namespace lab
