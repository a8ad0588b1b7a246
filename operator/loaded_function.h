// Functions of libraries that are loaded by the first call that needs them: a command that has no such call does not
// spend its start on loading them.
#pragma once

#include <atomic>

namespace engine {

// Loads the library at the first call, and keeps it. Throws Failure: it can't be loaded, or has no such function.
void *find_in_library(const char *library, const char *name);

// A function of such a library: called as the function itself, whose name it hides in this namespace.
template <typename Function>
class LoadedFunction {
public:
    constexpr LoadedFunction(const char *library, const char *name) : library_(library), name_(name) {}

    operator Function() const
    {
        Function found = found_.load(std::memory_order_acquire);
        if (!found) {
            found = reinterpret_cast<Function>(find_in_library(library_, name_));
            found_.store(found, std::memory_order_release);
        }
        return found;
    }

private:
    const char *const library_;
    const char *const name_;
    mutable std::atomic<Function> found_ = nullptr;
};

}  // namespace engine
