/* SPDX-License-Identifier: Apache-2.0 */
/* The private queue of a user context without a contract, and its slots: posters, a delayed task, a
 * cancel, the bus's workers, a quit and a failed init. What is one step here is done under the private
 * queue's lock in src/user/user_admission.cpp and qor_core_context_tasks.cpp, or under that of the
 * bus's task queue.
 *
 * Bounds: posters of POSTS and of 1 tasks and one delayed, WORKERS, LIMIT slots, DEPTH nodes in the queue,
 * DEPTH + 1 tasks and more go past it. Not here: asynchronous tasks, contexts without a bus, requests.
 * -DCANCELS: the delayed task is cancelled at any moment. -DQUITS: the bus quits at any moment.
 * -DFAILS: the init fails at any moment.
 * Each of these takes one guard away, and then the model must fail:
 *   SLOT_ASKED_EARLIER admission_queue() asks for a slot before it takes the lock
 *   SLOT_KEPT          user_loop_end_locked() gives no slot back
 *   END_WITHOUT_LOOK   qor_core_context_loop() gives the lock up between its last look and its end
 *   RUN_NOT_POSTED     admission_run() takes a slot and posts no run
 *   WAY_LOST           user_loop_gives_way() leaves its worker without having queued the run
 *   NO_TIMER           admission_later() starts no timer
 *   ANY_ORDER          qor_core_context_loop() takes what was posted last
 *   NO_UNDO            admission_run() leaves a refused task in the queue
 *   BLIND_UNDO         admission_undo() refuses a task that a run has taken meanwhile
 *   CANCEL_OUT_OF_TIME user_task_cancel() discards a task that it has found before it took the lock
 *   CLOSED_NOT_ASKED   qor_core_context_loop() does not look at closed
 *   BYPASS_NOT_ASKED   user_run_begin() does not look at closed
 *   BYPASS_NOT_COUNTED admission_bypass() does not count the task as under way
 *   LOOP_NOT_COUNTED   qor_core_context_loop() does not count its task as under way
 *   OVER_WAKES_NOBODY  user_task_over_locked() does not tell user_tasks_await() */
#ifndef WORKERS
#define WORKERS 2
#endif
#ifndef LIMIT
#define LIMIT 1
#endif
#ifndef POSTS
#define POSTS 2
#endif
#ifndef DEPTH
#define DEPTH 2
#endif

#define TASKS 4 /* the delayed one is 0 */
#define ALL (1 | 8 | (POSTS > 1 -> 6 : 2))
#define LOOP_RUN 4
#define TIMER_RUN 5 /* a loop run too, but it has taken no slot */

#define bit_of(task) (1 << (task))
#define is_in(set, task) ((set & bit_of(task)) != 0)
#define due_of(key) (key >> 2)
#define task_of(key) (key & 3)

byte ms;           /* the clock: the delayed task is due at 1 */
byte queue[DEPTH]; /* keys: due time * 4 + task */
byte length;
byte slots;        /* that are taken: refcount */
byte under_way;
bool closed;
bool awaits;       /* somebody sleeps in user_tasks_await() */
bool gone;         /* the context is taken down */
bool bus_quits;    /* the task queue */
bool stopping;
bool timer = true; /* of the delayed task, in the timer queue */
byte posting = 2;
byte working = WORKERS;

byte done, refused, discarded, cancelled; /* sets of tasks */

chan bus = [6] of { byte }; /* runs: a loop run, or a task that has gone past the queue */

/* Behind what is due earlier, and behind the first of what is due then. */
inline insert(key)
{
    i = 0;
    do
    :: i < length && due_of(queue[i]) < due_of(key) -> i++
    :: else -> break
    od;
    i = i + (i < length && due_of(queue[i]) == due_of(key));
    j = length;
    do
    :: j > i -> queue[j] = queue[j - 1]; j--
    :: else -> break
    od;
    queue[i] = key;
    i = 0;
    j = 0;
    length++
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

/* i is the place of a task in the queue, or length. */
inline find(task)
{
    i = 0;
    do
    :: i < length && task_of(queue[i]) != task -> i++
    :: else -> break
    od
}

inline end_as(how, task)
{
    assert(!is_in((done | refused | discarded | cancelled), task));
    how = how | bit_of(task)
}

inline task_over()
{
    under_way--;
#ifndef OVER_WAKES_NOBODY
    if
    :: under_way == 0 && closed -> awaits = false
    :: else
    fi
#endif
}

/* The bus takes no run any more. */
inline undo()
{
    atomic {
        find(task);
        if
        :: i < length -> unlink(i); end_as(refused, task)
#ifdef BLIND_UNDO
        :: else -> i = 0; end_as(refused, task)
#else
        :: else -> i = 0 /* a run has taken it */
#endif
        fi
    }
}

proctype poster(byte task; byte last)
{
    bool takes_slot, queued;
    byte i, j;
    do
    :: task > last -> break
    :: task <= last ->
#ifdef SLOT_ASKED_EARLIER
        takes_slot = slots < LIMIT;
#endif
        atomic {
#ifndef SLOT_ASKED_EARLIER
            takes_slot = slots < LIMIT;
#endif
            queued = !closed && length < DEPTH;
            if
            :: queued ->
                insert((ms << 2 | task));
                slots = slots + takes_slot
            :: !queued && !closed && !bus_quits ->
                bus!task;
#ifndef BYPASS_NOT_COUNTED
                under_way++
#endif
            :: !queued && (closed || bus_quits) -> end_as(refused, task)
            fi;
            takes_slot = takes_slot && queued
        };
        if
        :: takes_slot ->
            atomic {
                if
#ifndef RUN_NOT_POSTED
                :: !bus_quits -> bus!LOOP_RUN; takes_slot = false
#else
                :: !bus_quits -> takes_slot = false
#endif
                :: bus_quits
                fi
            };
            if
            :: takes_slot ->
                atomic { slots = (slots > 0 -> slots - 1 : 0); takes_slot = false };
#ifdef NO_UNDO
                end_as(refused, task)
#else
                undo()
#endif
            :: else
            fi
        :: !takes_slot && queued && stopping -> undo()
        :: !takes_slot && !(queued && stopping)
        fi;
        queued = false;
        task++
    od;
    posting--
}

/* The loop thread: a timer that has fallen due becomes a run. */
proctype timers()
{
end_timers:
#ifndef NO_TIMER
    atomic {
        timer && ms == 1;
        timer = false;
        if
        :: bus_quits
        :: else -> bus!TIMER_RUN
        fi
    }
#else
    false
#endif
}

proctype clock()
{
    atomic { ms = 1 }
}

inline take()
{
#ifdef ANY_ORDER
    key = queue[length - 1];
    unlink(length - 1);
#else
    key = queue[0];
    unlink(0);
#endif
    assert(!closed && due_of(key) <= ms);
    i = 0;
    do
    :: i < length -> assert(due_of(key) <= due_of(queue[i])); i++
    :: else -> break
    od;
    i = 0;
#ifndef LOOP_NOT_COUNTED
    under_way++;
#endif
    end_as(done, task_of(key));
    key = 0;
    begun = true
}

inline run_ends()
{
#ifndef SLOT_KEPT
    slots = (slots > 0 -> slots - 1 : 0);
#endif
    node = 0
}

#ifdef CLOSED_NOT_ASKED
#define goes_on !stopping
#else
#define goes_on (!stopping && !closed)
#endif

inline loop_run()
{
    do
    :: node == 0 -> break
    :: node > 0 ->
        atomic {
            if
            :: goes_on && length > 0 && due_of(queue[0]) <= ms -> take()
#ifdef END_WITHOUT_LOOK
            :: else
#else
            :: else -> run_ends()
#endif
            fi
        };
        if
        :: begun -> /* the task runs here, without the lock */
            atomic {
                assert(!gone);
                begun = false;
#ifndef LOOP_NOT_COUNTED
                task_over();
#endif
                if
                :: true
                :: length > 0 && nempty(bus) -> gives_way = true /* others go first */
                fi
            };
            if
            :: gives_way ->
                atomic {
                    gives_way = false;
                    if
#ifdef WAY_LOST
                    :: true -> node = 0
#else
                    :: bus_quits
                    :: else -> bus!node; node = 0
#endif
                    fi
                }
            :: else
            fi
        :: else ->
#ifdef END_WITHOUT_LOOK
            atomic { run_ends() }
#endif
            skip
        fi
    od
}

inline bypass_run()
{
    atomic {
        if
#ifdef BYPASS_NOT_ASKED
        :: true -> assert(!closed); end_as(done, node)
#else
        :: !closed -> end_as(done, node)
        :: closed -> end_as(discarded, node)
#endif
        fi
    };
    /* the task runs here, without the lock */
    atomic {
        assert(!gone);
#ifndef BYPASS_NOT_COUNTED
        task_over();
#endif
        node = 0
    }
}

proctype worker()
{
    byte node, key, i;
    bool begun, gives_way;
end_idle:
    do
    :: atomic { bus_quits -> break }
    :: atomic { !bus_quits && nempty(bus) -> bus?node };
        if
        :: node < TASKS -> bypass_run()
        :: else -> loop_run()
        fi
    od;
    working--
}

#ifdef CANCELS
proctype canceller()
{
    byte i;
    bool found, was_due;
#ifdef CANCEL_OUT_OF_TIME
    atomic { find(0); found = i < length; i = 0 };
#endif
    atomic {
        find(0);
#ifdef CANCEL_OUT_OF_TIME
        if
        :: found -> end_as(cancelled, 0)
        :: else
        fi;
#endif
        if
        :: i < length ->
            unlink(i);
#ifndef CANCEL_OUT_OF_TIME
            end_as(cancelled, 0);
#endif
            was_due = !timer;
            timer = false
        :: else
        fi;
        i = 0
    };
    if
    :: was_due ->
        atomic {
            if
            :: bus??[TIMER_RUN] -> bus??TIMER_RUN
            :: else /* a worker has it */
            fi
        }
    :: else
    fi
}
#endif

/* Takes the runs off the bus. */
inline runs_refuse()
{
    do
    :: atomic { nempty(bus) -> bus?node };
        if
        :: node < TASKS -> atomic { end_as(discarded, node); task_over(); node = 0 }
        :: else -> node = 0
        fi
    :: empty(bus) -> break
    od
}

inline tasks_refuse()
{
    do
    :: atomic { length > 0 -> end_as(discarded, task_of(queue[0])); unlink(0) }
    :: length == 0 -> break
    od
}

#ifdef FAILS
proctype init_fails()
{
    byte node, i;
    atomic { closed = true };
    tasks_refuse();
    runs_refuse();
    atomic { timer = false };
    runs_refuse();
    do
    :: atomic { under_way > 0 && !awaits -> awaits = true }; !awaits
    :: atomic { under_way == 0 -> gone = true; break }
    od
}
#endif

#ifdef QUITS
proctype quitter()
{
    byte node, i;
    atomic { bus_quits = true };
    atomic { stopping = true };
    atomic { timer = false };
    working == 0 && posting == 0; /* the loop joins the workers, the application its threads */
    runs_refuse();
    tasks_refuse();
    atomic { gone = true }
}
#endif

init {
    byte i, j;
    atomic {
        insert(4); /* the delayed task, accepted first */
        run poster(1, POSTS);
        run poster(3, 3);
        run timers();
        run clock();
        do
        :: i < WORKERS -> run worker(); i++
        :: else -> break
        od;
        i = 0;
#ifdef CANCELS
        run canceller();
#endif
#ifdef FAILS
        run init_fails();
#endif
#ifdef QUITS
        run quitter();
#endif
        run judge()
    }
}

/* When all have come to rest each task has ended, once. */
proctype judge()
{
    timeout;
    assert((done | refused | discarded | cancelled) == ALL);
    assert(posting == 0 && under_way == 0 && length == 0);
#if defined(FAILS) || defined(QUITS)
    assert(gone)
#else
    assert(slots == 0)
#endif
}
