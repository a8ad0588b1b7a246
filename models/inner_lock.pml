/*
 * The inner lock: several processes on several controllers, each transfer of NV memory one step, death
 * at every step. At most one process may be inside.
 *
 * What is built in is chosen with -D:
 *   PROCS=n             processes
 *   LAYOUT=0            all of one controller
 *   LAYOUT=1            each of its own
 *   LAYOUT=2            two of each
 *   LAYOUT=3            the first two of controller 0, the others of controllers of their own
 *   RECORD              the record lock between processes of one controller
 *   SWEEP_OUTSIDE       ... given back before the sweep (to show why it is not)
 *   DEATHS=n            so many processes may die, anywhere
 *   STALL               a holder may stall so long that it is taken for dead, and go on
 *
 * Time is left out but for what counts: a slot is stale for one who looks at it, has seen its token
 * before, and looks after its owner has died (or stalled). A waiter that sleeps may be woken at any time.
 */
#ifndef PROCS
#define PROCS 3
#endif
#ifndef LAYOUT
#define LAYOUT 0
#endif
#ifndef DEATHS
#define DEATHS 0
#endif

#if LAYOUT == 0
#define CONTROLLERS 1
#define CONTROLLER(p) 0
#elif LAYOUT == 1
#define CONTROLLERS PROCS
#define CONTROLLER(p) (p)
#elif LAYOUT == 2
#define CONTROLLERS ((PROCS + 1) / 2)
#define CONTROLLER(p) ((p) / 2)
#else
#define CONTROLLERS (PROCS - 1)
#define CONTROLLER(p) ((p) < 2 -> 0 : (p) - 1)
#endif

#define NOBODY 0
#define TOKEN(p) ((p) + 1)
#define OWNER(token) ((token) - 1)

byte slot[CONTROLLERS];   /* a token, or NOBODY */
byte record[CONTROLLERS]; /* who holds the record lock of a controller */
bool gone[PROCS];         /* dead, or taken for dead */
byte inside;
byte deaths;

/* Any step may be the last one. The system gives the record lock of a dead process back. */
inline may_die()
{
#if DEATHS > 0
    if
    :: atomic { deaths < DEATHS ->
           deaths++; gone[me] = true;
           if :: record[own] == TOKEN(me) -> record[own] = NOBODY :: else fi;
           printf("process %d of CNT%d dies\n", me, own) }
       goto end_dead
    :: true
    fi
#else
    skip
#endif
}

/* Takes note of what is stale in the image just read. */
inline judge()
{
    for (i : 0 .. CONTROLLERS - 1) {
        stale[i] = image[i] != NOBODY && seen[i] == image[i] && gone[OWNER(image[i])];
        seen[i] = image[i]
    }
    i = 0
}

/* What is not looked at again must not tell states apart. */
inline forget()
{
    d_step {
        for (i : 0 .. CONTROLLERS - 1) { image[i] = NOBODY; stale[i] = false }
        i = 0; blocker = NOBODY
    }
}

inline give_record_back()
{
#ifdef RECORD
    atomic { record[own] = NOBODY }
#endif
    skip
}

proctype Process(byte me)
{
    byte own = CONTROLLER(me);
    byte image[CONTROLLERS];
    byte seen[CONTROLLERS]; /* tokens of the attempts before */
    bool stale[CONTROLLERS];
    byte i;
    byte blocker;           /* NOBODY, or the token in the way */

attempt:
    may_die();
#ifdef RECORD
    if
    :: atomic { record[own] == NOBODY -> record[own] = TOKEN(me) }
    :: record[own] != NOBODY -> goto attempt /* busy: it sleeps, without a sweep */
    fi;
    may_die();
#endif
    d_step {
        blocker = NOBODY;
        for (i : 0 .. CONTROLLERS - 1) {
            image[i] = slot[i];
            if :: image[i] != NOBODY -> blocker = image[i] :: else fi
        }
        judge();
        if
        :: blocker == NOBODY -> printf("process %d of CNT%d looks: free\n", me, own)
        :: else -> printf("process %d of CNT%d looks: held\n", me, own)
        fi
    }
    if :: blocker != NOBODY -> goto retry :: else fi;
    may_die();
    atomic { slot[own] = TOKEN(me); printf("process %d of CNT%d claims\n", me, own) }
    may_die();
    d_step {
        blocker = NOBODY;
        for (i : 0 .. CONTROLLERS - 1) {
            image[i] = slot[i];
            if
            :: blocker == NOBODY && image[i] != NOBODY && image[i] != TOKEN(me) ->
               blocker = (i == own -> 255 : image[i]) /* 255: the own slot carries another token */
            :: else
            fi
        }
        judge();
        if
        :: blocker == NOBODY -> printf("process %d of CNT%d looks again: only its own claim\n", me, own)
        :: else -> printf("process %d of CNT%d looks again: another claim\n", me, own)
        fi
    }
    if
    :: blocker == NOBODY -> goto section
    :: blocker == 255 -> goto retry /* the own slot is left to its new owner */
    :: else
    fi;
    may_die();
    atomic { slot[own] = NOBODY; printf("process %d of CNT%d withdraws\n", me, own) }

retry:
#ifdef SWEEP_OUTSIDE
    give_record_back();
#endif
    do
    :: atomic { i < CONTROLLERS && !stale[i] -> i++ }
    :: i < CONTROLLERS && stale[i] ->
       may_die();
       atomic {
           printf("process %d of CNT%d clears the slot of CNT%d as stale\n", me, own, i);
           slot[i] = NOBODY; seen[i] = NOBODY; stale[i] = false; i++ }
    :: i == CONTROLLERS -> break
    od;
    forget();
#ifndef SWEEP_OUTSIDE
    give_record_back();
#endif
    goto attempt;

section:
    give_record_back();
    atomic { inside++; printf("process %d of CNT%d is inside\n", me, own); assert(inside == 1) }
#ifdef STALL
    if
    :: atomic { gone[me] = true; printf("process %d of CNT%d stalls\n", me, own) }
    :: true
    fi;
#endif
#if DEATHS > 0
    if
    :: atomic { deaths < DEATHS ->
           deaths++; gone[me] = true; inside--;
           printf("process %d of CNT%d dies inside\n", me, own) }
       goto end_dead
    :: true
    fi;
#endif
    atomic { inside--; gone[me] = false }
    may_die();
    atomic { slot[own] = NOBODY; printf("process %d of CNT%d releases\n", me, own) }
    forget();
    d_step { for (i : 0 .. CONTROLLERS - 1) { seen[i] = NOBODY } i = 0 }
    goto attempt;

end_dead:
    skip
}

init
{
    byte p;
    atomic {
        for (p : 0 .. PROCS - 1) { run Process(p) }
    }
}
