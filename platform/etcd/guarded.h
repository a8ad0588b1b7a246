// All that a library of this platform has, in its gate: made at first use, and never unmade, since threads may be in it
// when the program ends. A fork passes the gate too, and the child forgets what belongs to its parent.
#pragma once

#include <pthread.h>

#include <string>

#include "gate.h"
#include "scoped.h"

namespace etcd {

// A State of the library's own (in no named namespace) has a cluster, a complaint, and forget_in_child().
template <typename State>
class Guarded {
public:
    // Runs a body in the gate, not cancelled, and says what keeps it from its work.
    template <typename Body>
    static int run(const Body &body)
    {
        const kesta::CancelOff off;
        int result = 0;
        bool complain = false;
        std::string why;
        {
            const Entered entered(gate);
            if (!state) {
                state = new State;
            }
            result = body(*state);
            complain = state->complaint.is_new(result, state->cluster);
            why = complain ? state->complaint.why() : "";
        }
        if (complain) {
            state->complaint.tell(result, why);
        }
        return result;
    }

    // When the library is loaded: a fork that has begun by the first use would not know of it.
    static void handle_fork()
    {
        pthread_atfork([] { gate.enter(); }, [] { gate.leave(); },
                       [] {
                           if (state) {
                               state->forget_in_child();
                           }
                           gate.leave_in_child();
                       });
    }

    static inline Gate gate;
    static inline State *state = nullptr;  // in the gate
};

}  // namespace etcd
