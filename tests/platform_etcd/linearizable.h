// The judge of histories: whether what several processes wrote to a register and read from it, each operation between
// its start and its end, could have happened one after the other.
#pragma once

#include <cstdint>
#include <vector>

namespace test {

struct Operation {
    enum class Kind { read, write };
    Kind kind = Kind::read;
    unsigned value = 0;  // each is written once; 0 is what is there at first
    std::int64_t start = 0;
    std::int64_t end = 0;
    bool unknown = false;  // a write without an answer: it happens at any time after its start, or never
};

// The operations of each process, in its order.
using History = std::vector<std::vector<Operation>>;

bool is_linearizable(const History &history);

}  // namespace test
