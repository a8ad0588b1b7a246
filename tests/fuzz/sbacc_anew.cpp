// The library as it is, and a way to have what a process has of it that has just begun.
#include "sbacc.cpp"

#include "libraries_anew.h"

void fuzz::begin_sbacc_anew()
{
    delete Guarded<Backup>::state;
    Guarded<Backup>::state = nullptr;
}
