// A variadic call into a shared object that does nothing: the least that a trace can cost.
#pragma once

extern "C" __attribute__((format(printf, 4, 5))) void empty_call(const char *file, int line, int level,
                                                                 const char *format, ...);
