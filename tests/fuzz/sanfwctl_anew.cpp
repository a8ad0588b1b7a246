// The library as it is, and a way to have what a process has of it that has just begun.
#include "sanfwctl.cpp"

#include "libraries_anew.h"

void fuzz::begin_sanfwctl_anew()
{
    delete Guarded<NvMemory>::state;
    Guarded<NvMemory>::state = nullptr;
}
