// A small system of its own for what is tested: in memory, seen by this process only, and its root
// while a Visit lives.
#pragma once

namespace fuzz {

// Once, before anything else. Ends the process with a message where the machine doesn't allow it.
enum class Proc { none, lent };
void make_scratch_root(Proc proc = Proc::none);

// Inside, "/" is the root of the small system, and the current folder. A process that ends inside
// leaves it first, so that its input can be kept.
class Visit {
public:
    Visit();
    ~Visit();
    Visit(const Visit &) = delete;
    Visit &operator=(const Visit &) = delete;
};

// The lowest number that a new descriptor would get.
int next_descriptor();

}  // namespace fuzz
