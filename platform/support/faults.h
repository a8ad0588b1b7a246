// Faults on demand. Off unless the setting fault_file names a file; docs/platform.md describes it.
#pragma once

namespace platform {

enum class FaultAction {
    none,
    fail,         // the call fails with -value and does nothing
    short_count,  // the transfer ends after value bytes
    close_flag,   // the file counts as not closed properly
};

struct Fault {
    FaultAction action = FaultAction::none;
    int value = 0;
};

// Counts one call of a kind. Delays, blocks and kills happen in here; the rest is for the caller.
Fault meet_fault(const char *kind);

// The same for a call that can only fail: 0, or the negative result it has to return.
int failure_of(const char *kind);

// So much of a transfer is made: less where a fault makes it short.
inline unsigned limited(unsigned size, const Fault &fault)
{
    const bool is_short = fault.action == FaultAction::short_count && fault.value >= 0;
    return is_short && static_cast<unsigned>(fault.value) < size ? static_cast<unsigned>(fault.value) : size;
}

}  // namespace platform
