/*
 * The inner lock over NV memory whose writes are conditional and fenced: the region is one value with a
 * revision. A write reads it, changes its part, and puts the whole if nobody has written since. While a
 * process remembers a claim of its own, its other writes go through only where the claim still stands; a
 * slot of somebody else's is cleared only as it was seen.
 *
 * A holder writes twice in its section. What counts is not who is inside, but whose writes go through:
 * between the two writes of one that go through nobody else's do. A section ends with the claim: by the
 * holder's release, or by a sweep of it. And no sweep clears the claim of one who is not taken for dead.
 *
 *   PROCS=n         processes, each of a controller of its own; each goes through two sections, with a token
 *                   of its own for each
 *   DEATHS=n        so many may die, at any step of a section
 *   STALLS=n        so many times a holder stalls at any step of a section, also between reading and putting,
 *                   for so long that it is taken for dead, and goes on
 *   NO_CONDITION    puts what it made of what it had read, whatever came in between
 *   NO_FENCE        without looking whose claim stands
 *   NO_SEEN         clears a slot whatever it holds by then
 *   ONE_SECTION     all processes but the first go through one section only
 */
#ifndef PROCS
#define PROCS 2
#endif
#ifndef DEATHS
#define DEATHS 0
#endif
#ifndef STALLS
#define STALLS 0
#endif

#define NOBODY 0
#define SECTIONS 2

byte slot[PROCS];
bool changed[PROCS];                  /* somebody has written since this process has read */
bool gone[PROCS * SECTIONS + 1];      /* a token whose owner is dead, or taken for dead */
byte writer;                          /* whose section has its first write, and not its end */
byte deaths;
byte stalls;

inline read_region()
{
    atomic {
        for (i : 0 .. PROCS - 1) { image[i] = slot[i] }
        i = 0; changed[me] = false
    }
}

/* In an atomic step: whether the write goes through, and what becomes of the region. */
inline put_region()
{
    for (i : 0 .. PROCS - 1) {
        slot[i] = image[i];
        if :: i != me -> changed[i] = true :: else fi
    }
    i = 0
}

#ifdef NO_CONDITION
#define GOES_THROUGH true
#else
#define GOES_THROUGH (!changed[me])
#endif
#ifdef NO_FENCE
#define CLAIM_STANDS true
#else
#define CLAIM_STANDS (image[me] == token)
#endif
#ifdef NO_SEEN
#define AS_SEEN(n) true
#else
#define AS_SEEN(n) (image[n] == seen[n])
#endif
#ifdef ONE_SECTION
#define SECTIONS_OF(p) (p == 0 -> SECTIONS : 1)
#else
#define SECTIONS_OF(p) SECTIONS
#endif

inline may_stall()
{
    if
    :: atomic { stalls < STALLS -> stalls++; gone[token] = true; printf("process %d stalls\n", me) }
       printf("process %d goes on\n", me)
    :: true
    fi
}

inline may_die()
{
    if
    :: atomic { deaths < DEATHS -> deaths++; gone[token] = true; printf("process %d dies\n", me) }
       goto end_dead
    :: true
    fi
}

/* A write of the section, the first or the second one. */
inline section_write(first)
{
    do
    :: may_die();
       read_region();
       if :: !CLAIM_STANDS -> printf("process %d is refused\n", me); goto release :: else fi;
       may_stall();
       if
       :: atomic { GOES_THROUGH ->
              put_region();
              printf("process %d writes in its section\n", me);
              assert(first && writer == NOBODY || !first && writer == token);
              writer = token }
          break
       :: else
       fi
    od
}

proctype Process(byte me)
{
    byte image[PROCS];
    byte seen[PROCS];
    bool stale[PROCS];
    byte i;
    byte k;
    byte section;
    byte token = me + 1;
    bool blocked;

attempt:
    skip;
    atomic {
        blocked = false;
        for (i : 0 .. PROCS - 1) {
            image[i] = slot[i];
            stale[i] = image[i] != NOBODY && seen[i] == image[i] && gone[image[i]];
            seen[i] = image[i];
            if :: image[i] != NOBODY -> blocked = true :: else fi
        }
        i = 0; changed[me] = false
    }
    if :: blocked -> goto sweep :: else fi;
    do
    :: read_region();
       image[me] = token;
       if
       :: atomic { GOES_THROUGH -> put_region(); printf("process %d claims\n", me) }
          break
       :: else
       fi
    od;
    atomic {
        blocked = false;
        for (i : 0 .. PROCS - 1) {
            if :: slot[i] != NOBODY && slot[i] != token -> blocked = true :: else fi
        }
        i = 0
    }
    if :: blocked -> goto withdraw :: else fi;
    may_stall();
    section_write(true);
    may_stall();
    section_write(false);

release:
    section++;
withdraw:
    do
    :: read_region();
       if :: image[me] != token -> break :: else fi; /* it is not there any more: done */
       image[me] = NOBODY;
       if
       :: atomic { GOES_THROUGH ->
              put_region();
              if :: writer == token -> writer = NOBODY :: else fi;
              printf("process %d gives back\n", me) }
          break
       :: else
       fi
    od;
    if
    :: section == SECTIONS_OF(me) -> goto end_dead
    :: else -> atomic { gone[token] = false; token = me + 1 + PROCS * section }
    fi;
    goto attempt;

sweep:
    k = 0;
    do
    :: k < PROCS && (!stale[k] || k == me) -> k++
    :: k < PROCS && stale[k] && k != me ->
       read_region();
       if
       :: image[k] == NOBODY || !AS_SEEN(k) -> k++
       :: else ->
          image[k] = NOBODY;
          if
          :: atomic { GOES_THROUGH ->
                 assert(gone[slot[k]]); /* nobody's fresh claim is cleared */
                 /* Whoever's claim this was, its section is over. */
                 if :: writer == slot[k] -> writer = NOBODY :: else fi;
                 put_region();
                 printf("process %d clears the slot of process %d\n", me, k); k++ }
          :: else
          fi
       fi
    :: k == PROCS -> k = 0; break
    od;
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
