/*
 * The command lock: each access to the slots is one section of the inner lock, and one step here. A
 * controller reads all slots, writes its own, reads again, and withdraws if it meets another.
 *
 *   CONTROLLERS=n   controllers, one process each
 *   TYPES=0         each takes locks of type 1
 *   TYPES=1         type 3
 *   TYPES=2         any type each time
 *   SUSPEND         a holder of type 1 may suspend its lock and take it again
 *   DEATHS=n        so many holders may die; others clear their locks
 *   SAME            all are processes of controller 0 (to show what is not excluded)
 *
 * Type 1 and type 3 must not overlap with anything; two of type 2 may.
 */
#ifndef CONTROLLERS
#define CONTROLLERS 3
#endif
#ifndef TYPES
#define TYPES 0
#endif
#ifndef DEATHS
#define DEATHS 0
#endif

#ifdef SAME
#define OWN(p) 0
#else
#define OWN(p) (p)
#endif

#define FREE 0
#define TYPE_1 1
#define TYPE_2 3
#define TYPE_3 4
#define NOBODY 0
#define SIGN(p) ((p) + 1)

byte status[CONTROLLERS];
byte sign[CONTROLLERS];
bool dead[CONTROLLERS];
byte deaths;
byte exclusive; /* holders of type 1 and 3 */
byte shared;    /* holders of type 2 */

inline enter()
{
    atomic {
        if :: want == TYPE_2 -> shared++ :: else -> exclusive++ fi;
        printf("CNT%d holds a lock with status %d\n", me, want);
        assert(exclusive == 0 || exclusive + shared == 1)
    }
}

inline leave()
{
    if :: want == TYPE_2 -> shared-- :: else -> exclusive-- fi
}

proctype Controller(byte me)
{
    byte own = OWN(me);
    byte want;
    byte i;
    bool blocked;
    bool again; /* a suspended lock is taken again */

next:
    again = false;
    if
    :: TYPES == 0 || TYPES == 2 -> want = TYPE_1
    :: TYPES == 1 || TYPES == 2 -> want = TYPE_3
    :: TYPES == 2 -> want = TYPE_2
    fi;

take:
    skip;
    d_step {
        blocked = false;
        for (i : 0 .. CONTROLLERS - 1) {
            if
            :: status[i] != FREE || (want == TYPE_1 && !again && sign[i] != NOBODY) ->
               blocked = true
            :: else
            fi
        }
        if
        :: blocked -> printf("CNT%d reads the slots: refused\n", me)
        :: else -> printf("CNT%d reads the slots: admitted\n", me)
        fi
    }
    if
    :: blocked && again -> goto give_up
    :: blocked -> goto sweep
    :: else
    fi;
    atomic { status[own] = want; sign[own] = SIGN(me); printf("CNT%d writes its slot\n", me) }
    d_step {
        blocked = false;
        for (i : 0 .. CONTROLLERS - 1) {
            if
            :: i != own && status[i] != FREE && !(want == TYPE_2 && status[i] == TYPE_2) ->
               blocked = true
            :: else
            fi
        }
        if
        :: blocked -> printf("CNT%d reads again: collision\n", me)
        :: else -> printf("CNT%d reads again: alone\n", me)
        fi
    }
    if
    :: blocked ->
       atomic { status[own] = FREE; sign[own] = NOBODY; printf("CNT%d withdraws\n", me) }
       goto next
    :: else
    fi;
    enter();
    if
    :: atomic { deaths < DEATHS ->
           deaths++; dead[me] = true; leave(); printf("CNT%d dies\n", me) }
       goto revived
#ifdef SUSPEND
    :: want == TYPE_1 ->
       atomic { leave(); status[own] = FREE; printf("CNT%d suspends its lock\n", me) }
       again = true;
       goto take
#endif
    :: true
    fi;

give_up:
    atomic {
        if :: blocked && again :: else -> leave() fi;
        /* Released only with its own identifier. */
        if :: sign[own] == SIGN(me) -> status[own] = FREE; sign[own] = NOBODY :: else fi;
        printf("CNT%d releases\n", me)
    }
    goto next;

    /* One that is refused looks for locks of dead holders, and clears what it saw. */
sweep:
    i = 0;
    do
    :: i < CONTROLLERS ->
       if
       :: d_step { sign[i] != NOBODY && dead[sign[i] - 1] }
          atomic {
              status[i] = FREE; sign[i] = NOBODY;
              printf("CNT%d clears the lock of CNT%d as timed out\n", me, i) }
       :: else
       fi;
       i++
    :: else -> break
    od;
    goto next;

    /* The controller comes up again once its lock is gone. */
revived:
    sign[own] == NOBODY;
    atomic { dead[me] = false }
    goto next
}

init
{
    byte p;
    atomic {
        for (p : 0 .. CONTROLLERS - 1) { run Controller(p) }
    }
}
