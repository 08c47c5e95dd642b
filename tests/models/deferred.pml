/* SPDX-License-Identifier: Apache-2.0 */
/* A deferred request: two threads that complete it, its time limit, the return of its handler and a
 * quit. What is one step here is done under the table's lock in src/contract/qor_deferred.cpp.
 *
 * -DFAILS: the handler returns a negative result.
 * Each of these takes one guard away, and then the model must fail:
 *   NO_WINNER          qor_deferred_complete() does not ask whether the request is open
 *   NO_HOLD_OF_HANDLER deferral_end_locked() hands it on though the handler is inside
 *   NO_HOLD_OF_COPY    qor_deferred_complete() lets go of it before it has copied
 *   QUIT_KEEPS_ENDED   deferred_bus_over() leaves one alone that has its result and waits for its handler
 *   RETURN_ENDS_IT     deferral_return_locked() counts a negative result though it is complete */

#define OPEN 1
#define ENDED 2
#define DISCARDED 3

byte state = OPEN;
byte holds = 2;     /* for being open, for its handler */
byte ends;          /* how often it was ended */
byte handed;        /* to the bus's queue: points and response follow */
byte freed;
byte winners;       /* completions that were told 0 */
bool inside = true; /* the handler */
bool quitting;
bool closed;        /* no worker runs any more, and nobody looks at the bus */
bool own_end;       /* a completion or the limit has ended it */
byte copying;

inline drop()
{
    holds--;
    if
    :: holds == 0 && state == ENDED ->
        assert(!inside);  /* the message is the handler's until it returns */
        assert(copying == 0);
        assert(!closed);  /* the bus is not there any more */
        if
        :: quitting -> freed++ /* the queue refuses it */
        :: else -> handed++
        fi
    :: holds == 0 && state != ENDED -> assert(!inside && copying == 0); freed++
    :: else
    fi
}

inline end_as(how)
{
    ends++;
    state = how;
#ifdef NO_HOLD_OF_HANDLER
    if
    :: inside -> holds--
    :: else
    fi
#endif
}

proctype completer()
{
    bool won;
    atomic {
#ifdef NO_WINNER
        won = !quitting && state != DISCARDED && holds > 0;
#else
        won = !quitting && state == OPEN;
#endif
        if
        :: won ->
            end_as(ENDED);
            own_end = true;
            winners++;
            copying++;
#ifdef NO_HOLD_OF_COPY
            drop()
#endif
        :: else
        fi
    }
    if
    :: won ->
        /* the payload is copied here, without the lock */
        atomic {
            copying--;
#ifndef NO_HOLD_OF_COPY
            drop()
#endif
        }
    :: else
    fi
}

proctype limit()
{
    atomic {
        if
#ifdef NO_WINNER
        :: !quitting && state != DISCARDED && holds > 0 ->
#else
        :: !quitting && state == OPEN ->
#endif
            end_as(ENDED);
            own_end = true;
            drop()
        :: else
        fi
    }
}

proctype handler()
{
    atomic {
        inside = false;
#ifdef FAILS
        if
#ifdef RETURN_ENDS_IT
        :: true ->
#else
        :: state == OPEN ->
#endif
            assert(!own_end);
            end_as(ENDED);
            holds--
        :: else
        fi;
#endif
#ifdef NO_HOLD_OF_HANDLER
        if
        :: holds > 0 -> drop()
        :: else
        fi
#else
        drop()
#endif
    }
}

/* Asks for the end; then whatever is under way on the bus ends, and what is left is discarded. */
proctype quit()
{
    quitting = true;
    atomic {
        if
        :: state == OPEN -> end_as(DISCARDED); drop()
#ifndef QUIT_KEEPS_ENDED
        :: state == ENDED -> state = DISCARDED
#endif
        :: else
        fi;
        closed = true
    }
}

init {
    atomic {
        run completer();
        run completer();
        run limit();
        run handler();
        run quit()
    }
}

/* When all have come to rest it has ended, once, and its memory has one owner. */
active proctype judge()
{
    timeout;
    assert(ends == 1 && handed + freed == 1 && winners <= 1)
}
