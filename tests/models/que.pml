/* SPDX-License-Identifier: Apache-2.0 */
/* The blocking queue: takers, givers and a quit, woken one by one by counted wakes. What is one step
 * here is done under the queue's lock in src/queues/qor_que.cpp and que_waits.cpp.
 *
 * Bounds: TAKERS and GIVERS threads, ITEMS of each giver, CAPACITY places, SPURIOUS wakes without a
 * cause. The first taker and the first giver wait without limit; the second of each gives up at any
 * moment. Not here: qor_que_deque(), which leaves count alone, and the calls with a node's id.
 * -DQUITS: the queue quits at any moment. -DDESTROYS: it is destroyed at any moment at which every
 * thread waits in it or has ended. -DWATCHES: one more takes nodes and waits on the public condition
 * without limit, and every other taker has one.
 * Each of these takes one guard away, and then the model must fail:
 *   WAKE_KEPT         a thread that leaves que_wait() leaves its wake in waking
 *   WAKE_FOR_NOBODY   que_wake() counts a wake though nobody waits
 *   NO_WAKE_OF_TAKERS que_changed() wakes no taker
 *   NO_WAKE_OF_GIVERS que_changed() wakes no giver
 *   NO_BROADCAST      que_changed() leaves the public condition alone
 *   ONE_CONDITION     que_wait_for_room() waits among the takers
 *   TIME_BEFORE_NODES qor_que_deque_block_locked() asks for the time before it looks at the list
 *   NO_SECOND_LOOK    qor_que_deque_block_locked() takes what it was woken for without a look
 *   ROOM_NOT_ASKED    que_wait_for_room() does not look again when it was woken
 *   NEWEST_FIRST      que_append() puts a node in front
 *   NODES_BEFORE_QUIT qor_que_deque_block_locked() hands out nodes of a queue that quits
 *   QUIT_WAKES_NOBODY que_quit_begin() wakes nobody
 *   QUIT_WAKES_TAKERS que_wake_everybody() forgets the givers
 *   DISCARD_STOPS     que_discard_all() discards one node
 *   CLOSE_AT_ONCE     que_waits_close() does not wait for those who are inside */
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
#define CAPACITY 1
#endif

#include "waits.inc"

byte queue[CAPACITY]; /* numbers of acceptance */
byte length;
byte accepted;
byte last; /* number of the node taken last */
byte taken;
byte discarded;
#ifdef WATCHES
bool watching = true;
#else
bool watching;
#endif

inline que_changed()
{
#ifndef NO_BROADCAST
    cond_broadcast(changed);
#endif
#ifndef NO_WAKE_OF_TAKERS
    que_wake(takers, takers_waiting, takers_waking, length);
#endif
#ifndef NO_WAKE_OF_GIVERS
    que_wake(givers, givers_waiting, givers_waking, CAPACITY - length)
#endif
}

inline append()
{
    assert(length < CAPACITY);
    accepted++;
#ifdef NEWEST_FIRST
    queue[length] = queue[0];
    queue[0] = accepted;
#else
    queue[length] = accepted;
#endif
    length++;
    que_changed()
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
    assert(length > 0 && !quitting);
    assert(queue[0] == last + 1); /* none lost, none twice, in order */
    last = queue[0];
    taken++;
    unlink(0);
    que_changed()
}

/* A thread that sleeps is woken without a cause, or because its time is over. */
#define wakes_by_itself(cond) \
    :: atomic { waits && sleeps_in(cond, me) && timed && !late -> late = true; cond_leave(cond, me) } \
    :: atomic { waits && sleeps_in(cond, me) && spurious > 0 -> spurious--; cond_leave(cond, me) }

#ifdef NODES_BEFORE_QUIT
#define hands_out_nothing (quitting && length == 0)
#else
#define hands_out_nothing quitting
#endif
#ifdef TIME_BEFORE_NODES
#define finds_node (length > 0 && !late)
#elif defined(NO_SECOND_LOOK)
#define finds_node (length > 0 || woken)
#else
#define finds_node (length > 0)
#endif

/* Takes node after node, each with a call of its own. */
proctype taker(byte me; bool timed)
{
    bool waits, woken, late;
    byte i;
end_waits:
    do
    :: !waits && closing -> break
    :: atomic { (waits -> !sleeps_in(takers, me) : !closing) ->
           assert(!freed);
           woken = waits;
           if
           :: waits -> que_wait_ends(takers_waiting, takers_waking)
           :: else
           fi;
           if
           :: hands_out_nothing -> break
           :: !hands_out_nothing && finds_node -> take()
           :: !hands_out_nothing && !finds_node && late -> break
           :: !hands_out_nothing && !finds_node && !late -> que_wait(takers, takers_waiting)
           fi;
           woken = false }
    wakes_by_itself(takers)
    od;
    atomic { over++; outside-- }
}

/* Gives its items, one for each call. */
proctype giver(byte me; bool timed)
{
    bool waits, woken, late;
    byte left = ITEMS;
    do
    :: !waits && (left == 0 || closing) -> break
    :: atomic { (waits -> !sleeps_in(room, me) : left > 0 && !closing) ->
           assert(!freed);
           woken = waits;
           if
           :: waits -> que_wait_ends(room_waiting, room_waking)
           :: else
           fi;
           if
           :: quitting -> break
           :: !quitting && finds_room -> left--; append()
           :: !quitting && !finds_room && late -> break
           :: !quitting && !finds_room && !late -> que_wait(room, room_waiting)
           fi;
           woken = false }
    wakes_by_itself(room)
    od;
    atomic { over++; outside-- }
}

#ifdef WATCHES
/* Takes nodes too, and waits with qor_que_wait_locked(). */
active proctype watcher()
{
    bool waits;
    byte i;
end_waits:
    do
    :: atomic { !waits || !sleeps_in(changed, 0) ->
           inside = inside - waits;
           waits = false;
           if
           :: quitting -> break
           :: !quitting && length > 0 -> take()
           :: !quitting && length == 0 -> inside++; cond_enter(changed, 0); waits = true
           fi }
    od;
    watching = false
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
    atomic { start_threads(watching) }
}

/* When all have come to rest, no node waits beside a taker, and a quit has ended everybody. */
active proctype judge()
{
    timeout;
    assert(accepted == taken + discarded && length == 0);
    assert(givers_waiting == 0 && givers_waking <= givers_waiting);
    assert(takers_waking <= takers_waiting && inside == takers_waiting + watching);
    assert(!quitting || (over == TAKERS + GIVERS && !watching))
}
