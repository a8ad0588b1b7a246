// The cause of a failure, noted for the caller where it is met. Functions that only hand a failure on trace it, and
// leave the cause alone.
#pragma once

#include "kesta/cause.h"

namespace kesta {

// The path of a source is what __FILE__ gives: the function is named after it. Leaves errno alone.
void note_cause(int kind, int number, const char *source, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

}  // namespace kesta
