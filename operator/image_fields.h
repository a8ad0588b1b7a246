// The NV image as it lies in NV memory, field by field.
#pragma once

#include <cstddef>
#include <vector>

#include "names.h"

namespace engine {

struct ImageField {
    Block block;  // of what has no block: its name, kind and size
    std::size_t offset;

    bool has_block() const;
};

// All of them, in the order of their offsets.
const std::vector<ImageField> &image_fields();

// Throw Failure.
std::vector<char> read_region(unsigned region, int offset, int size);
std::vector<char> read_image();

std::vector<char> bytes_of(const ImageField &field, const std::vector<char> &image);

// Whether the header says that it is an image.
bool is_stamped(const std::vector<char> &image);

}  // namespace engine
