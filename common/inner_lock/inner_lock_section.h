// One section under the inner lock.
#pragma once

#include "kesta/inner_lock.h"
#include "ownership.h"

namespace kesta {

// Released by release(), whose result counts; the destructor lets go on a path that forgot, and on
// the unwinding of a cancelled thread.
class InnerLockSection {
public:
    InnerLockSection() = default;
    ~InnerLockSection()
    {
        if (held_) {
            CancelOff off;
            (void)release();
        }
    }
    InnerLockSection(const InnerLockSection &) = delete;
    InnerLockSection &operator=(const InnerLockSection &) = delete;

    int acquire(int cntno)
    {
        const int rtn = kestal_cntl_innerlock(cntno);
        held_ = rtn == KESTA_OK;
        cntno_ = cntno;
        return rtn;
    }

    int release()
    {
        held_ = false;
        return kestal_reset_mycnt_innerlock_main(cntno_, own_slot);
    }

private:
    static constexpr int own_slot = 0;

    bool held_ = false;
    int cntno_ = -1;
};

}  // namespace kesta
