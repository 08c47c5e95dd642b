/* SPDX-License-Identifier: Apache-2.0 */
/* Deliveries that wait for the start of a user context: two on the bus's workers before its init is
 * queued, one on a thread of the application, a quit and a drain. What is one step here is done under
 * the context's mutex in src/user/qor_core_context_lifecycle.cpp and user_init.cpp, or under that of
 * the bus in src/bus/qor_bus.cpp and qor_bus_helper.cpp.
 *
 * Bounds: WORKERS, BEFORE deliveries in the task queue before the init and AFTER behind it, one context.
 * The system may refuse a helper its thread. Not here: circles of waits, that the recorder refuses.
 * -DFAILS: the init fails. -DQUITS: the bus quits at any moment.
 * Each of these takes one guard away, and then the model must fail:
 *   NO_HELP             qor_core_context_lifecycle_resume() waits without user_init_help()
 *   HELP_GIVEN_UP       user_init_help() runs nothing itself when there is no thread
 *   INIT_NOT_CLAIMED    user_init_claim() does not look at what has begun
 *   CLAIM_OUT_OF_TIME   init_take() does not look again under the lock
 *   OFFER_TELLS_NOBODY  user_init_offer() wakes nobody
 *   OFFER_DISTURBS_NONE lifecycle_await() sleeps on when an init is offered
 *   START_TELLS_NOBODY  lifecycle_store() wakes nobody
 *   DELIVERED_EARLY     qor_core_context_lifecycle_resume() does not ask whether it has started
 *   STOP_NOT_ASKED      lifecycle_await() does not look at bus_stopping()
 *   QUIT_WAKES_NOBODY   qor_bus_quit() does not wake those who wait inside contexts
 *   STOP_SET_LAST       qor_bus_quit() sets stopping when it has woken them
 *   BUSY_TOO_LATE       user_init_help() counts the init after it has claimed it
 *   BUSY_KEPT           user_init_help() keeps the count of an init that another has claimed */
#include "conditions.inc"

#ifndef WORKERS
#define WORKERS 2
#endif
#ifndef BEFORE
#define BEFORE 2
#endif
#ifndef AFTER
#define AFTER 0
#endif

#define DELIVERIES (BEFORE + AFTER + 1)
#define DELIVERY 1
#define INIT 2

#define CREATED 0 /* what the lifecycle says */
#define STARTED 1
#define STOPPED 2

#define UNKNOWN 0 /* how far the init has come */
#define OFFERED 1
#define BEGUN 2

byte lifecycle = CREATED;
byte init_is = UNKNOWN;
byte cond;       /* the context's */
byte waiters;    /* whom quit wakes; a set */
byte busy;       /* what drain waits for */
byte idle;       /* workers that wait for a task */
bool bus_locked; /* the bus's mutex, where more than one step is done under it */
bool bus_quits;  /* the task queue */
bool stopping;
byte inits;
byte delivered;
byte refused;

chan tasks = [BEFORE + AFTER + 1] of { byte };

/* The module's init, on whichever thread, and what follows it. */
inline init_run()
{
    inits++;
    assert(inits == 1);
    atomic {
#ifdef FAILS
        lifecycle = STOPPED;
#else
        lifecycle = STARTED;
#endif
#ifndef START_TELLS_NOBODY
        cond_broadcast(cond)
#endif
    }
}

proctype helper()
{
    init_run();
    busy--
}

/* took: whether the caller goes on at once, as an init was there to begin. */
inline init_help()
{
    took = false;
    if
    :: init_is == OFFERED && !stopping ->
#ifndef BUSY_TOO_LATE
        busy++;
#endif
        atomic {
            if
#ifdef CLAIM_OUT_OF_TIME
            :: true -> init_is = BEGUN; took = true
#else
            :: init_is == OFFERED -> init_is = BEGUN; took = true
            :: else
#endif
            fi
        };
#ifdef BUSY_TOO_LATE
        if
        :: took -> busy++
        :: else
        fi;
#endif
        if
        :: !took ->
#if !defined(BUSY_KEPT) && !defined(BUSY_TOO_LATE)
            busy--
#else
            skip
#endif
        :: took ->
            atomic { !bus_locked ->
                if
                :: !stopping -> run helper(); helped = true
                :: true /* it stops, or there is no thread */
                fi
            };
            if
            :: helped -> helped = false
            :: !helped && stopping -> busy--; took = false
            :: !helped && !stopping ->
#ifndef HELP_GIVEN_UP
                init_run();
#endif
                busy--
            fi
        fi
    :: else
    fi
}

#ifdef DELIVERED_EARLY
#define is_open (lifecycle != STOPPED)
#else
#define is_open (lifecycle == STARTED)
#endif
#ifdef OFFER_DISTURBS_NONE
#define disturbed (lifecycle != CREATED)
#else
#define disturbed (lifecycle != CREATED || init_is == OFFERED)
#endif
#ifdef STOP_NOT_ASKED
#define sleeps_on (!disturbed)
#else
#define sleeps_on (!disturbed && !stopping)
#endif

/* qor_core_context_lifecycle_resume() */
inline deliver()
{
    over = false;
    do
    :: over -> break
    :: !over ->
        atomic {
            if
            :: is_open -> assert(lifecycle == STARTED); delivered++; over = true
            :: !is_open && (lifecycle == STOPPED || stopping) -> refused++; over = true
            :: !is_open && lifecycle == CREATED && !stopping
            fi
        };
        if
        :: over
        :: else ->
#ifndef NO_HELP
            init_help();
#endif
            if
            :: took -> took = false
            :: else -> wait_for_start()
            fi
        fi
    od
}

inline wait_for_start()
{
    atomic { !bus_locked -> cond_enter(waiters, me) };
    do
    :: atomic { !sleeps_in(cond, me) && sleeps_on -> cond_enter(cond, me) }; !sleeps_in(cond, me)
    :: atomic { !sleeps_on -> break }
    od;
    atomic { !bus_locked -> cond_leave(waiters, me) }
}

proctype worker(byte me)
{
    byte task;
    bool over, took, helped;
    idle++;
end_idle:
    do
    :: atomic { bus_quits -> break }
    :: atomic { !bus_quits && nempty(tasks) -> tasks?task; idle-- };
        if
        :: task == DELIVERY -> deliver()
        :: task == INIT ->
            atomic {
#ifdef INIT_NOT_CLAIMED
                took = true;
#else
                took = (init_is != BEGUN);
#endif
                init_is = BEGUN
            };
            if
            :: took -> init_run(); took = false
            :: else
            fi
        fi;
        atomic { task = 0; over = false; idle++ }
    od
}

/* A thread of the application. */
proctype publisher(byte me)
{
    bool over, took, helped;
    deliver()
}

/* The manager brings the module up. */
proctype manager()
{
    byte i;
    atomic {
        init_is = OFFERED;
#ifndef OFFER_TELLS_NOBODY
        cond_broadcast(cond)
#endif
    };
    atomic {
        if
        :: bus_quits
        :: else ->
            tasks!INIT;
            i = 0;
            do
            :: i < AFTER -> tasks!DELIVERY; i++
            :: else -> break
            od;
            i = 0
        fi
    };
    /* A drain that ends at any moment from here on has waited for the init. */
    if
    :: atomic { empty(tasks) && idle == WORKERS && busy == 0 && !stopping ->
           assert(lifecycle != CREATED) }
    :: true
    fi
}

#ifdef QUITS
proctype quitter()
{
    atomic { !bus_locked -> bus_locked = true };
    bus_quits = true;
#ifndef STOP_SET_LAST
    stopping = true;
#endif
#ifndef QUIT_WAKES_NOBODY
    atomic {
        if
        :: waiters != 0 -> cond_broadcast(cond)
        :: else
        fi
    };
#endif
#ifdef STOP_SET_LAST
    stopping = true;
#endif
    bus_locked = false
}
#endif

init {
    byte i;
    atomic {
        do
        :: i < BEFORE -> tasks!DELIVERY; i++
        :: else -> break
        od;
        i = 0;
        do
        :: i < WORKERS -> run worker(i); i++
        :: else -> break
        od;
        i = 0;
        run publisher(WORKERS);
        run manager();
#ifdef QUITS
        run quitter();
#endif
        run judge()
    }
}

/* When all have come to rest, nobody waits, and every delivery that was begun has ended. */
proctype judge()
{
    timeout;
    assert(cond == 0 && waiters == 0 && busy == 0);
#ifdef QUITS
    assert(inits <= 1);
    assert(delivered + refused + len(tasks) - (tasks??[INIT] -> 1 : 0) >= BEFORE + 1)
#else
    assert(delivered + refused == DELIVERIES && empty(tasks));
    assert(inits == 1 && idle == WORKERS);
#ifdef FAILS
    assert(delivered == 0)
#else
    assert(refused == 0)
#endif
#endif
}
