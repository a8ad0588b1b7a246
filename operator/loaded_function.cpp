#include "loaded_function.h"

#include <dlfcn.h>

#include <string>

#include "failure.h"

namespace engine {

void *find_in_library(const char *library, const char *name)
{
    void *const loaded = dlopen(library, RTLD_NOW | RTLD_LOCAL);  // never closed: its functions are kept
    void *const found = loaded ? dlsym(loaded, name) : nullptr;
    if (!found) {
        const char *const why = dlerror();
        throw Failure(Exit::platform, "no-library",
                      std::string(library) + " could not be used: " + (why ? why : "it lacks a function") + ".",
                      "Nothing was changed. Install the package that it belongs to.");
    }
    return found;
}

}  // namespace engine
