// One section under the inner lock, with its traces.
#pragma once

#include "kesta/inner_lock.h"
#include "ownership.h"
#include "trace.h"

namespace kesta {

// What stands before and after the result of a lock, and of a release, that failed. Who reads logs looks for the very
// words of each operation.
struct InnerLockTexts {
    const char *before_lock_result;
    const char *after_lock_result;
    const char *before_release_result;
    const char *after_release_result;
};

// Released by release(), whose result counts; the destructor lets go on a path that forgot, and on
// the unwinding of a cancelled thread. A failure is traced as the operation's that the tag names, in its own source.
class InnerLockSection {
public:
    InnerLockSection(const char *tag, const InnerLockTexts &texts, const char *source = __builtin_FILE(),
                     int line = __builtin_LINE())
        : tag_(tag), texts_(texts), source_(source), line_(line)
    {
    }
    ~InnerLockSection()
    {
        if (held_) {
            CancelOff off;
            (void)kestal_reset_mycnt_innerlock_main(cntno_, own_slot);  // best effort: the slot times out
        }
    }
    InnerLockSection(const InnerLockSection &) = delete;
    InnerLockSection &operator=(const InnerLockSection &) = delete;

    int acquire(int cntno)
    {
        const int rtn = kestal_cntl_innerlock(cntno);
        held_ = rtn == KESTA_OK;
        cntno_ = cntno;
        if (!held_) {
            trace(texts_.before_lock_result, rtn, texts_.after_lock_result);
        }
        return rtn;
    }

    int release()
    {
        held_ = false;
        const int rtn = kestal_reset_mycnt_innerlock_main(cntno_, own_slot);
        if (rtn != KESTA_OK) {
            trace(texts_.before_release_result, rtn, texts_.after_release_result);
        }
        return rtn;
    }

private:
    static constexpr int own_slot = 0;

    void trace(const char *before, int rtn, const char *after) const
    {
        MC_OutTrace(source_, line_, 1, "[%s] %s%d%s", tag_, before, rtn, after);
    }

    const char *const tag_;
    const InnerLockTexts &texts_;
    const char *const source_;
    const int line_;
    bool held_ = false;
    int cntno_ = -1;
};

}  // namespace kesta
