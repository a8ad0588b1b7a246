// Runs a fuzz target over the files of a folder: as an ordinary test, with any compiler.
#include <stdio.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "contract.h"

// What a target prepares once, if it does.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s CORPUS\n", argv[0]);
        return 2;
    }
    const std::filesystem::path corpus = std::filesystem::absolute(argv[1]);
    if (LLVMFuzzerInitialize) {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    int files = 0;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(corpus)) {
        if (!entry.is_regular_file()) {
            continue;
        }
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(file)), {});
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
        ++files;
    }
    printf("%d inputs\n", files);
    return files > 0 ? 0 : 1;
}
