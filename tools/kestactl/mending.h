// kestactl verify --fix: the mends that verify gives, carried out one after the other.
#pragma once

#include "command.h"
#include "findings.h"

namespace kestactl {

struct Mended {
    MendCommand command;
    Exit exit = Exit::done;
    std::string why;  // of one that was refused or failed; else what was dropped or left out on the way
};

// Runs one command as if it had been given on the command line, under the same lock rule.
Mended run_mend(const MendCommand &command, const Globals &globals);

// Mends row by row, looking again behind each: what a mend was for may have been done by another. A command that was
// refused is not tried again. Returns what was run; findings then is what was found last.
std::vector<Mended> mend_all(Findings &findings, const Globals &globals);

}  // namespace kestactl
