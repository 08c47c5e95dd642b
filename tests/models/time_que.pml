/* SPDX-License-Identifier: Apache-2.0 */
/* The timed queue: takers that sleep until the first node is due and are disturbed only by one that
 * is due earlier. What is one step here is done under the queue's lock in
 * src/queues/qor_time_que.cpp and que_waits.cpp.
 *
 * Bounds: TAKERS and GIVERS threads, ITEMS of the first giver and one less of the others, with every
 * delay from 0 to DELAYS, a clock from 0 to LAST, CAPACITY places, SPURIOUS wakes without a cause. The
 * first taker and the first giver wait without limit; the others' takers have until DEADLINE, the
 * others' givers give up at any moment.
 * Not here: the index of a long list, whose answers are those of the walk, and the nodes kept.
 * -DIN_ORDER: equal due times in the order of arrival. -DTAKES_OUT: a node is removed at any moment,
 * or moved by qor_time_que_early(). -DQUITS: the queue quits at any moment. -DDESTROYS: it is
 * destroyed at any moment at which every thread waits in it or has ended.
 * Each of these takes one guard away, and then the model must fail:
 *   LOOK_NOT_NOTED     time_que_sleep() leaves latest_look alone
 *   LOOK_OF_THE_LAST   time_que_sleep() lowers latest_look to the look of who comes last
 *   LOOK_FORGOTTEN     time_que_sleep() forgets latest_look though others still wait
 *   EARLIER_UNNOTICED  time_que_changed() wakes no taker
 *   ONE_TAKER_WOKEN    time_que_changed() wakes one taker of several
 *   NO_WAKE_OF_GIVERS  time_que_changed() wakes no giver
 *   SLEEPS_TO_DEADLINE qor_time_que_deque_block_locked() sleeps until its deadline
 *   CLOCK_READ_ONCE    qor_time_que_deque_block_locked() reads the clock before its loop
 *   NOT_YET_DUE        qor_time_que_deque_block_locked() takes the first node, due or not
 *   AT_THE_END         time_que_place() gives the end of the list
 *   TIES_NEWEST_FIRST  time_que_place() does not ask for in_order
 *   ROOM_NOT_ASKED     que_wait_for_room() does not look again when it was woken
 *   QUIT_WAKES_NOBODY  time_que_quit_begin() wakes nobody
 *   DISCARD_STOPS      time_que_discard_all() discards one node
 *   CLOSE_AT_ONCE      que_waits_close() does not wait for those who are inside */
#ifndef TAKERS
#define TAKERS 2
#endif
#ifndef GIVERS
#define GIVERS 2
#endif
#ifndef ITEMS
#define ITEMS 2
#endif
#ifndef CAPACITY
#define CAPACITY 2
#endif
#ifndef DELAYS
#define DELAYS 2
#endif
#ifndef DEADLINE
#define DEADLINE 1
#endif
#ifndef LAST
#define LAST 2
#endif

#include "waits.inc"

#define NEVER 15   /* a moment that is not reached */
#define NOBODY 0   /* no taker waits without being woken; one more than a moment else */
#define when(key) (key >> 4)

byte ms; /* the clock */
byte queue[CAPACITY]; /* keys: due time * 16 + number of acceptance */
byte length;
byte accepted;
byte taken;
byte removed;
byte discarded;
byte latest_look;  /* + 1 */
byte look[TAKERS]; /* of a taker that sleeps: when it looks again by itself */

/* Whoever sleeps looks again before or when the first node is due. */
inline nobody_oversleeps()
{
    i = 0;
    do
    :: i < TAKERS ->
        assert(length == 0 || quitting || !sleeps_in(takers, i) || look[i] <= when(queue[0]));
        i++
    :: else -> break
    od;
    i = 0
}

inline changed_que()
{
    cond_broadcast(changed);
    if
#ifndef EARLIER_UNNOTICED
    :: length > 0 && when(queue[0]) + 1 < latest_look ->
        latest_look = NOBODY;
#ifdef ONE_TAKER_WOKEN
        que_wake(takers, takers_waiting, takers_waking, 1)
#else
        que_wake_all(takers, takers_waiting, takers_waking)
#endif
#endif
    :: else
    fi;
#ifndef NO_WAKE_OF_GIVERS
    que_wake(givers, givers_waiting, givers_waking, CAPACITY - length);
#endif
    nobody_oversleeps()
}

/* Where a key belongs: in order, or behind the first of those that are due then. */
inline place(key)
{
#ifdef AT_THE_END
    i = length;
#else
    i = 0;
    do
#if defined(IN_ORDER) && !defined(TIES_NEWEST_FIRST)
    :: i < length && when(queue[i]) <= when(key) -> i++
#else
    :: i < length && when(queue[i]) < when(key) -> i++
#endif
    :: else -> break
    od;
#if !defined(IN_ORDER) || defined(TIES_NEWEST_FIRST)
    i = i + (i < length && when(queue[i]) == when(key))
#endif
#endif
}

inline insert(key)
{
    assert(length < CAPACITY);
    place(key);
    j = length;
    do
    :: j > i -> queue[j] = queue[j - 1]; j--
    :: else -> break
    od;
    j = 0;
    queue[i] = key;
    i = 0;
    length++;
    changed_que()
}

inline unlink(from)
{
    i = from;
    do
    :: i + 1 < length -> queue[i] = queue[i + 1]; i++
    :: else -> break
    od;
    i = 0;
    length--;
    queue[length] = 0
}

inline take()
{
    assert(length > 0 && !quitting && when(queue[0]) <= ms);
    i = 1;
    do
    :: i < length ->
        assert(when(queue[0]) <= when(queue[i]));
#ifdef IN_ORDER
        assert(queue[0] < queue[i]);
#endif
        i++
    :: else -> break
    od;
    taken++;
    unlink(0);
    changed_que()
}

inline sleep_until()
{
    assert(until > ms); /* nobody sleeps while there is work */
    look[me] = until;
#ifdef LOOK_OF_THE_LAST
    latest_look = until + 1;
#elif !defined(LOOK_NOT_NOTED)
    latest_look = (latest_look < until + 1 -> until + 1 : latest_look);
#endif
    until = 0;
    que_wait(takers, takers_waiting);
    nobody_oversleeps()
}

inline sleep_ends()
{
    look[me] = 0;
    que_wait_ends(takers_waiting, takers_waking);
    if
#ifdef LOOK_FORGOTTEN
    :: true -> latest_look = NOBODY
#else
    :: takers_waiting == 0 -> latest_look = NOBODY
    :: else
#endif
    fi
}

#ifdef CLOCK_READ_ONCE
#define moment begun
#else
#define moment ms
#endif
#ifdef NOT_YET_DUE
#define finds_node (length > 0)
#else
#define finds_node (length > 0 && when(queue[0]) <= moment)
#endif
#ifdef SLEEPS_TO_DEADLINE
#define next_look deadline
#else
#define next_look (length > 0 && when(queue[0]) < deadline -> when(queue[0]) : deadline)
#endif

/* Takes node after node, each with a call of its own. */
proctype taker(byte me; bool timed)
{
    bool waits;
    byte i, begun, until;
    byte deadline = (timed -> DEADLINE : NEVER);
end_waits:
    do
    :: !waits && closing -> break
    :: atomic { (waits -> !sleeps_in(takers, me) : !closing) ->
           assert(!freed);
           if
           :: waits -> sleep_ends()
           :: else -> begun = ms
           fi;
           if
           :: quitting -> break
           :: !quitting && finds_node -> take()
           :: !quitting && !finds_node && moment >= deadline -> break
           :: !quitting && !finds_node && moment < deadline ->
               until = next_look;
               sleep_until()
           fi }
    :: atomic { waits && sleeps_in(takers, me) && ms >= look[me] -> cond_leave(takers, me) }
    :: atomic { waits && sleeps_in(takers, me) && spurious > 0 -> spurious--; cond_leave(takers, me) }
    od;
    atomic { over++; outside-- }
}

/* Gives its items, one for each call; each is due so long after it was made. */
proctype giver(byte me; bool timed)
{
    bool waits, woken, late, made;
    byte left = (timed -> ITEMS - 1 : ITEMS);
    byte due, i, j;
end_waits:
    do
    :: !waits && (left == 0 || closing) -> break
    :: atomic { !waits && left > 0 && !closing && !made ->
           select(due : 0 .. DELAYS);
           due = due + ms;
           made = true }
    :: atomic { made && (waits -> !sleeps_in(givers, me) : !closing) ->
           assert(!freed);
           woken = waits;
           if
           :: waits -> que_wait_ends(givers_waiting, givers_waking)
           :: else
           fi;
           if
           :: quitting -> break
           :: !quitting && finds_room ->
               left--;
               made = false;
               accepted++;
               insert((due << 4 | accepted));
               due = 0
           :: !quitting && !finds_room && late -> break
           :: !quitting && !finds_room && !late -> que_wait(givers, givers_waiting)
           fi;
           woken = false }
    :: atomic { waits && sleeps_in(givers, me) && timed && !late -> late = true; cond_leave(givers, me) }
    :: atomic { waits && sleeps_in(givers, me) && spurious > 0 -> spurious--; cond_leave(givers, me) }
    od;
    atomic { over++; outside-- }
}

active proctype clock()
{
    do
    :: ms < LAST -> ms++
    :: else -> break
    od
}

#ifdef TAKES_OUT
/* qor_time_que_remove() or qor_time_que_early(), once, of any node. */
active proctype remover()
{
    byte i, j, key;
end_without:
    atomic {
        length > 0 && !quitting;
        select(j : 0 .. length - 1);
        key = queue[j];
        unlink(j);
        j = 0;
        if
        :: removed++; changed_que()
        :: insert(key)
        fi
    }
}
#endif

#if defined(QUITS) || defined(DESTROYS)
active proctype quitter()
{
    byte i;
    quit_or_destroy()
}
#endif

init {
    byte i;
    atomic { start_threads(false) }
}

/* When all have come to rest, nothing that is due waits, and a quit has ended everybody. */
active proctype judge()
{
    timeout;
    assert(ms == LAST && accepted == taken + removed + discarded + length);
    assert(length == 0 || when(queue[0]) > LAST);
    assert(givers_waiting == 0 || length == CAPACITY);
    assert(inside == takers_waiting + givers_waiting);
    assert(!quitting || (over == TAKERS + GIVERS && length == 0))
}
