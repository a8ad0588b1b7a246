// Transfers to NV memory.
#pragma once

#include <cstdint>

#include "ownership.h"

using kesta::nvrw_mutex;

namespace kesta {

// Cancellation off, then nvrw_mutex held: a thread that is cancelled in the middle of a transfer
// can't die holding it. Both go back in the opposite order.
class NvTransferSection {
public:
    NvTransferSection() : guard_(nvrw_mutex) {}

private:
    CancelOff cancel_off_;
    MutexGuard guard_;
};

inline constexpr int nv_handle = -1;
inline constexpr int nv_access_count = 1;
inline constexpr int nv_attempts = 5;
inline constexpr unsigned nv_retry_us = 100000;

}  // namespace kesta
