/* SPDX-License-Identifier: Apache-2.0 */
/* Quit, drain and close of a bus: workers, the loop, an application's thread that posts, one that
 * drains, one that closes. The queues are those of que.pml and time_que.pml without their waits. What
 * is one step here is done under the bus's mutex or a queue's lock in src/bus and src/start.
 *
 * Bounds: WORKERS, and TASKS posted: one starts a timer that is due at once, one defers a request,
 * others do nothing; one timer that is due later. Not here: helpers, workers that a task ends.
 * -DQUITS: a quit by an application's thread at any moment, and a close. -DTASK_QUITS: by a task.
 * Each of these takes one guard away, and then the model must fail:
 *   ONE_LOCK_AT_A_TIME   bus_is_settled() looks at one queue after the other
 *   WORKERS_NOT_ASKED    que_is_settled_locked() looks at the list alone
 *   DUE_NOT_ASKED        time_que_is_settled_locked() does not ask what is due
 *   BUSY_NOT_ASKED       bus_is_settled() does not look at busy
 *   QUIT_NOT_ASKED       bus_is_settled() does not ask whether a quit has begun
 *   TAKER_TELLS_NOBODY   que_wait() does not tell those in que_settle()
 *   REST_TELLS_NOBODY    bus_busy_end() does not tell those in bus_rest_await()
 *   QUIT_TELLS_NOBODY    que_wake_everybody() forgets those in que_settle()
 *   WORKERS_NOT_JOINED   bus_loop_serve() does not join the workers
 *   TIMERS_NOT_DISCARDED bus_tasks_discard() discards the task queue alone
 *   VISITORS_NOT_AWAITED qor_bus_close() does not wait for those who drain
 *   CLOSED_BESIDE_LOOP   qor_bus_close() does not look at looping */
#include "conditions.inc"

#ifndef WORKERS
#define WORKERS 2
#endif
#ifndef TASKS
#define TASKS 3
#endif

#define PLAIN 1
#define STARTS_TIMER 2
#define DEFERS 3
#define ENDS_BUS 4

chan tasks = [TASKS + 3] of { byte };
bool que_quits, time_que_quits;
byte waiting;      /* workers, in the task queue */
bool loop_waits;   /* in the timer queue */
byte due;          /* timers that are */
bool later = true; /* one that is not yet */
bool open;         /* a deferred request */
byte busy;
byte settled, time_settled, rested; /* conditions of the thread that drains */
bool bus_locked;   /* the bus's mutex, where more than one step is done under it */
bool stopping;
bool looping = true;
byte visitors;
bool freed;
byte working = WORKERS;
byte outsiders = 2; /* the application's threads that post and complete */

byte accepted = 1; /* tasks and timers, and responses */
byte done;
byte discarded;
bool drain_begun, drained, drain_ended;

#define enque(task) \
    if \
    :: que_quits \
    :: !que_quits -> accepted++; tasks!task \
    fi

inline busy_ends()
{
    busy--;
#ifndef REST_TELLS_NOBODY
    if
    :: busy == 0 -> cond_broadcast(rested)
    :: else
    fi
#endif
}

/* qor_bus_quit() */
inline quit()
{
    atomic { !bus_locked -> bus_locked = true; assert(!freed) };
    if
    :: !stopping ->
        atomic {
            que_quits = true;
#ifndef QUIT_TELLS_NOBODY
            cond_broadcast(settled)
#endif
        };
        stopping = true;
        atomic { cond_broadcast(rested) };
        atomic {
            time_que_quits = true;
#ifndef QUIT_TELLS_NOBODY
            cond_broadcast(time_settled)
#endif
        }
    :: else
    fi;
    atomic { assert(!freed); bus_locked = false }
}

proctype worker()
{
    byte task;
    bool waits;
end_idle:
    do
    :: atomic { que_quits -> waiting = waiting - waits; break }
    :: atomic { !que_quits && len(tasks) == 0 && !waits ->
           waiting++;
           waits = true;
#ifndef TAKER_TELLS_NOBODY
           cond_broadcast(settled)
#endif
       }
    :: atomic { !que_quits && len(tasks) > 0 -> waiting = waiting - waits; waits = false; tasks?task };
        if
        :: task == STARTS_TIMER ->
            atomic {
                if
                :: !time_que_quits -> due++; accepted++
                :: else
                fi
            }
        :: task == DEFERS -> atomic { busy++; open = true; accepted++ }
        :: task == ENDS_BUS -> quit()
        :: task == PLAIN
        fi;
        atomic { assert(!freed); done++; task = 0 }
    od;
    atomic { assert(!freed); working-- }
}

inline discard_tasks()
{
    atomic {
        if
        :: open -> open = false; busy_ends(); discarded++
        :: else
        fi
    };
    do
    :: atomic { len(tasks) > 0 -> tasks?task; task = 0; discarded++ }
    :: len(tasks) == 0 -> break
    od;
#ifndef TIMERS_NOT_DISCARDED
    atomic {
        discarded = discarded + due + later;
        due = 0;
        later = false
    }
#endif
}

/* qor_bus_loop() */
proctype loop()
{
    byte task;
end_timers:
    do
    :: atomic { time_que_quits -> loop_waits = false; break }
    :: atomic { !time_que_quits && due > 0 ->
           loop_waits = false;
           due--;
           if
           :: que_quits -> discarded++
           :: else -> tasks!PLAIN
           fi }
    :: atomic { !time_que_quits && due == 0 && !loop_waits ->
           loop_waits = true;
#ifndef TAKER_TELLS_NOBODY
           cond_broadcast(time_settled)
#endif
       }
    od;
#ifndef WORKERS_NOT_JOINED
    working == 0;
#endif
    discard_tasks();
    atomic { !bus_locked -> looping = false }
}

/* The timer that is due later falls due. */
proctype clock()
{
    atomic {
        if
        :: later -> later = false; due++
        :: else
        fi
    }
}

proctype poster()
{
    byte i;
    atomic { enque(STARTS_TIMER) };
    atomic { enque(DEFERS) };
    i = 2;
    do
    :: i < TASKS -> atomic { enque(PLAIN); i++ }
    :: else -> break
    od;
#ifdef TASK_QUITS
    atomic { enque(ENDS_BUS) };
#endif
    outsiders--
}

/* Completes the deferred request, unless it is discarded first: its response is queued. */
proctype completer()
{
end_without:
    if
    :: atomic { open -> open = false };
        atomic {
            if
            :: que_quits -> discarded++
            :: else -> tasks!PLAIN
            fi
        };
        atomic { busy_ends() }
    :: que_quits
    fi;
    outsiders--
}

#ifdef WORKERS_NOT_ASKED
#define workers_settled len(tasks) == 0
#else
#define workers_settled (len(tasks) == 0 && waiting == WORKERS)
#endif
#ifdef DUE_NOT_ASKED
#define loop_settled loop_waits
#else
#define loop_settled (loop_waits && due == 0)
#endif
#ifdef QUIT_NOT_ASKED
#define goes_on true
#else
#define goes_on (!que_quits)
#endif
#ifdef BUSY_NOT_ASKED
#define all_rest true
#else
#define all_rest (busy == 0)
#endif

/* The drain is over: everything that was accepted has been done, but what is due later. */
#define is_drained \
    drained = true; \
    assert(accepted == done + later && !open && discarded == 0)

/* que_settle(), and bus_rest_await() that is like it. */
inline settle(cond, is_settled, ends)
{
    do
    :: atomic { !sleeps_in(cond, 0) && !is_settled && !ends -> cond_enter(cond, 0) };
        !sleeps_in(cond, 0)
    :: atomic { is_settled || ends -> break }
    od
}

/* qor_bus_drain() */
proctype drainer()
{
    atomic { !bus_locked -> assert(!freed); visitors++; drain_begun = true };
    do
    :: que_quits -> break
    :: else ->
#ifdef ONE_LOCK_AT_A_TIME
        if
        :: loop_settled ->
            atomic {
                if
                :: goes_on && workers_settled && all_rest -> is_drained
                :: else
                fi
            }
        :: else
        fi;
#else
        atomic {
            if
            :: loop_settled && goes_on && workers_settled && all_rest -> is_drained
            :: else
            fi
        };
#endif
        if
        :: drained -> break
        :: else
        fi;
        settle(time_settled, loop_settled, time_que_quits);
        settle(settled, workers_settled, que_quits);
        settle(rested, all_rest, stopping)
    od;
    atomic { assert(!freed); visitors--; drain_ended = true }
}

#ifdef QUITS
proctype quitter()
{
    quit()
}
#endif

/* qor_bus_close(), by a thread that knows that nobody else will call. */
proctype closer()
{
    byte task;
end_open:
#ifndef CLOSED_BESIDE_LOOP
    atomic { !bus_locked && !looping };
#else
    atomic { !bus_locked && stopping };
#endif
    outsiders == 0 && drain_begun;
    quit();
#ifndef VISITORS_NOT_AWAITED
    visitors == 0;
#endif
    discard_tasks();
    freed = true
}

init {
    byte i;
    atomic {
        do
        :: i < WORKERS -> run worker(); i++
        :: else -> break
        od;
        i = 0;
        run loop();
        run clock();
        run poster();
        run completer();
        run drainer();
        run closer();
#ifdef QUITS
        run quitter();
#endif
        run judge()
    }
}

/* When all have come to rest, everything has been done or discarded, and a quit has ended all. */
proctype judge()
{
    timeout;
    assert(drain_ended && accepted == done + discarded);
#if defined(QUITS) || defined(TASK_QUITS)
    assert(freed && working == 0 && !looping && visitors == 0)
#else
    assert(drained && !freed && visitors == 0)
#endif
}
