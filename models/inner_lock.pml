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
 *   STOPS=n             so many times a process may be stopped in an attempt, at any step, for so long that
 *                       it is taken for dead: the others pass its record lock by, and it goes on later
 *   ONE_PLACE           ... with a record lock of one place: who passes it by goes on without
 *   BLIND               ... without looking at the clock when it goes on (to show why it does)
 *   BEFORE_WRITE        ... exactly between its look at the clock and its write, too
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
#ifndef STOPS
#define STOPS 0
#endif
#ifdef ONE_PLACE
#define PLACES 1
#else
#define PLACES (STOPS + 1)
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
#define TOKENS (PROCS * (STOPS + 1) + 1)
#define NOT_OWN 255
#define PLACE(k) (own * PLACES + (k))

byte slot[CONTROLLERS];            /* a token, or NOBODY */
byte record[CONTROLLERS * PLACES]; /* who holds a place of the record lock, as its token */
bool gone[TOKENS];                 /* whose owner is dead, or taken for dead */
byte inside;
byte deaths;
byte stops;

inline give_record_back()
{
#ifdef RECORD
    d_step {
        for (k : 0 .. PLACES - 1) {
            if :: record[PLACE(k)] == token -> record[PLACE(k)] = NOBODY :: else fi
        }
        k = 0
    }
#endif
    skip
}

/* Any step may be the last one. The system gives the record lock of a dead process back. */
inline may_die()
{
#if DEATHS > 0
    if
    :: atomic { deaths < DEATHS ->
           deaths++; gone[token] = true;
           give_record_back();
           printf("process %d of CNT%d dies\n", me, own) }
       goto end_dead
    :: true
    fi
#else
    skip
#endif
}

/* Any step of an attempt may be followed by a stop. Going on, the process is late for the rest of the
 * attempt. */
inline may_stop()
{
#if STOPS > 0
    if
    :: atomic { stops < STOPS ->
           stops++; gone[token] = true; printf("process %d of CNT%d is stopped\n", me, own) }
#ifndef BLIND
       late = true;
#endif
       printf("process %d of CNT%d goes on\n", me, own)
    :: true
    fi
#else
    skip
#endif
}

/* Before a write. */
inline may_stop_before_write()
{
#ifdef BEFORE_WRITE
    if
    :: atomic { stops < STOPS ->
           stops++; gone[token] = true; printf("process %d of CNT%d is stopped\n", me, own) }
       printf("process %d of CNT%d goes on\n", me, own)
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
        stale[i] = image[i] != NOBODY && seen[i] == image[i] && gone[image[i]];
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


proctype Process(byte me)
{
    byte own = CONTROLLER(me);
    byte image[CONTROLLERS];
    byte seen[CONTROLLERS]; /* tokens of the attempts before */
    bool stale[CONTROLLERS];
    byte i;
    byte k;
    byte blocker;           /* NOBODY, or the token in the way */
    byte token = me + 1;    /* another one after each stop */
    bool late;

attempt:
    may_die();
#ifdef RECORD
    /* The first place that is not to be passed by. Busy: it sleeps, and may look meanwhile. */
    k = 0;
    do
    :: atomic { k < PLACES && record[PLACE(k)] == NOBODY -> record[PLACE(k)] = token; break }
    :: k < PLACES && record[PLACE(k)] != NOBODY && gone[record[PLACE(k)]] -> k++
    :: k < PLACES && record[PLACE(k)] != NOBODY && !gone[record[PLACE(k)]] -> k = 0; goto attempt
    :: k == PLACES -> break
    od;
    /* And whoever is in another place must be one to pass by. */
    k = 0;
    do
    :: k < PLACES && (record[PLACE(k)] == NOBODY || record[PLACE(k)] == token || gone[record[PLACE(k)]]) -> k++
    :: k < PLACES && record[PLACE(k)] != NOBODY && record[PLACE(k)] != token && !gone[record[PLACE(k)]] ->
       give_record_back(); goto attempt
    :: k == PLACES -> k = 0; break
    od;
    may_die();
    may_stop();
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
    may_stop();
    if :: late -> goto retry :: else fi;
    may_stop_before_write();
    atomic { slot[own] = token; printf("process %d of CNT%d claims\n", me, own) }
    may_die();
    may_stop();
    d_step {
        blocker = NOBODY;
        for (i : 0 .. CONTROLLERS - 1) {
            image[i] = slot[i];
            if
            :: blocker == NOBODY && image[i] != NOBODY && image[i] != token ->
               blocker = (i == own -> NOT_OWN : image[i]) /* the own slot carries another token */
            :: else
            fi
        }
        judge();
        if
        :: blocker == NOBODY -> printf("process %d of CNT%d looks again: only its own claim\n", me, own)
        :: else -> printf("process %d of CNT%d looks again: another claim\n", me, own)
        fi
    }
    may_stop();
    if
    :: late -> goto retry
    :: !late && blocker == NOBODY -> goto section
    :: !late && blocker == NOT_OWN -> goto retry /* the own slot is left to its new owner */
    :: else
    fi;
    may_die();
    may_stop();
    if :: late -> goto retry :: else fi;
    may_stop_before_write();
    atomic { slot[own] = NOBODY; printf("process %d of CNT%d withdraws\n", me, own) }

retry:
#ifdef SWEEP_OUTSIDE
    give_record_back();
#endif
    do
    :: atomic { i < CONTROLLERS && !stale[i] -> i++ }
    :: i < CONTROLLERS && stale[i] ->
       may_die();
       may_stop();
       if :: late -> break :: else fi;
       may_stop_before_write();
       atomic {
           printf("process %d of CNT%d clears the slot of CNT%d as stale\n", me, own, i);
           slot[i] = NOBODY; seen[i] = NOBODY; stale[i] = false; i++ }
    :: i == CONTROLLERS -> break
    od;
    forget();
#ifndef SWEEP_OUTSIDE
    give_record_back();
#endif
#if STOPS > 0
    atomic {
        if
        :: gone[token] -> token = token + PROCS
        :: else
        fi;
        late = false
    }
#endif
    goto attempt;

section:
    give_record_back();
    atomic { inside++; printf("process %d of CNT%d is inside\n", me, own); assert(inside == 1) }
#ifdef STALL
    if
    :: atomic { gone[token] = true; printf("process %d of CNT%d stalls\n", me, own) }
    :: true
    fi;
#endif
#if DEATHS > 0
    if
    :: atomic { deaths < DEATHS ->
           deaths++; gone[token] = true; inside--;
           printf("process %d of CNT%d dies inside\n", me, own) }
       goto end_dead
    :: true
    fi;
#endif
    atomic { inside--; gone[token] = false }
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
