// What changing commands keep of the archives that they replace, and what they say of it.
#pragma once

#include "options.h"
#include "plan.h"

namespace kestactl {

// --keep and --comment.
void add_keep_options(const options::Command &command, Globals &globals);

// Keeps what these places hold, and adds to the report. Looks again and again, which may throw.
Step keep_step(
    const std::vector<ReplacedPlace> &places, const std::string &verb, const KeepRule &rule,
    const std::shared_ptr<KeepReport> &report, const std::function<void()> &look = [] {});

// The plan with such a step before the others, where it names what it replaces.
Plan with_keeping(Plan plan, const KeepRule &rule);

void tell_kept(Result &result, const KeepReport &report);

// The failure of a later step, with what was noted before it.
Failure with_notes(const Failure &failure, const KeepReport &report);

}  // namespace kestactl
