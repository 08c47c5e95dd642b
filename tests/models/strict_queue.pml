/* SPDX-License-Identifier: Apache-2.0 */
/* A strict queue: two posters, a timer and a quit beside one worker more than there are slots. What
 * is one step here is done under the private queue's lock in src/contract/contract_queue.cpp.
 *
 * -DLIMIT=1 or 2: tasks at a time. -DDEPTH: places; a poster without one waits for it.
 * Each of these takes one guard away, and then the model must fail:
 *   NO_SLOT_TEST       run_wanted_locked() starts a run whatever the number of runs
 *   NO_HAND_ON         qor_core_context_loop() gives the lock up between its last look and its end
 *   NO_ORDER_KEY       time_que_place() gives the end of the list
 *   TIMER_WITHOUT_SLOT run_enter_locked() lets a timer's run in though there are enough
 *   QUIT_WAKES_NOBODY  qor_bus_quit() does not wake a poster that waits in arrival_wait() */

#ifndef LIMIT
#define LIMIT 1
#endif
#ifndef DEPTH
#define DEPTH 1
#endif

#define TASKS 4  /* two of one poster, one of the other, one of the timer */
#define NONE 255

byte now;           /* the millisecond; the timer's task is due at 1 */
byte number;        /* of acceptance */
byte queue[TASKS];  /* keys in order: millisecond * 8 + number */
byte length;        /* of the queue */
byte placed;        /* waiting tasks that have a place */
byte runs;          /* loop runs that wait for a worker or have one */
byte inside;        /* tasks under way */
byte accepted;
byte done;
byte refused;
bool quitting;
bool timer_is_over;
byte posting = 2;

chan bus = [8] of { bit }; /* what waits for a worker: 0 a run, 1 the timer's */

/* Puts a key in its place. */
inline enqueue(key)
{
    i = length;
    do
#ifndef NO_ORDER_KEY
    :: i > 0 && queue[i - 1] > key -> queue[i] = queue[i - 1]; i--
    :: else -> break
#else
    :: break
#endif
    od;
    queue[i] = key;
    length++;
    i = 0
}

inline start_run()
{
    if
#ifdef NO_SLOT_TEST
    :: true -> runs++; bus!0
#else
    :: runs < LIMIT -> runs++; bus!0
    :: else
#endif
    fi
}

/* A request: waits for a place, then is accepted, or refused because the bus quits. */
proctype poster(byte count)
{
    byte i;
    do
    :: count == 0 -> break
    :: count > 0 ->
        count--;
        atomic {
#ifdef QUIT_WAKES_NOBODY
            placed < DEPTH;
#else
            placed < DEPTH || quitting;
#endif
            if
            :: quitting -> refused++
            :: else ->
                number++;
                enqueue(now * 8 + number);
                placed++;
                accepted++;
                start_run()
            fi
        }
    od;
    posting--
}

/* The delayed task, accepted before anything else and due at 1: its key is older than that of what
 * is accepted at 1 after it. Its timer wakes a worker. */
proctype timer()
{
    atomic { now == 1 -> bus!1 }
}

active proctype clock()
{
    atomic { now = 1 }
}

byte last; /* key of the task begun last */

#define is_due (length > 0 && queue[0] < (now + 1) * 8)

inline begin()
{
    key = queue[0];
    i = 0;
    do
    :: i + 1 < length -> queue[i] = queue[i + 1]; i++
    :: else -> break
    od;
    length--;
    queue[length] = 0;
    i = 0;
    placed = (key == 8 -> placed : placed - 1);
    inside++;
    assert(inside <= LIMIT);
    /* Of what waits nothing that is due comes before it. */
    i = 0;
    do
    :: i < length -> assert(queue[i] >= key); i++
    :: else -> break
    od;
    i = 0
}

active [LIMIT + 1] proctype worker()
{
    bit wakes;
    byte key, i;
    bool goes_on;
end_idle:
    do
    :: atomic { bus?wakes ->
           goes_on = true;
           if
           :: wakes ->
#ifdef TIMER_WITHOUT_SLOT
               runs++
#else
               if
               :: runs < LIMIT -> runs++
               :: else -> goes_on = false
               fi
#endif
           :: else
           fi }
       do
       :: !goes_on -> break
       :: goes_on ->
           atomic {
               if
               :: is_due && !quitting -> begin()
               :: else ->
                   key = NONE;
#ifndef NO_HAND_ON
                   runs--;
#endif
                   goes_on = false
               fi
           }
           if
           :: key != NONE -> atomic { inside--; done++ }
#ifdef NO_HAND_ON
           :: else -> atomic { runs--; goes_on = false }
#else
           :: else
#endif
           fi
       od
    od
}

#ifdef QUITS
active proctype quitter()
{
    quitting = true
}
#endif

init {
    byte i;
    atomic {
        enqueue(1 * 8 + 0); /* the delayed task: due at 1, the first to be accepted */
        accepted++;
        run timer();
        run poster(2);
        run poster(1)
    }
}

/* When all have come to rest, nothing that was accepted is left behind, unless the bus has quit. */
active proctype judge()
{
    timeout;
    assert(posting == 0 && inside == 0 && (quitting || done == accepted))
}
