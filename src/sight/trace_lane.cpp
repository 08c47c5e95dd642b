/* SPDX-License-Identifier: Apache-2.0 */
/* Lanes: a ring of events for each thread, and what the thread is inside. A lane has one writer, so
 * that an event costs neither a lock nor a shared counter. */
#include "trace_lane.hpp"

#include <sys/syscall.h>
#include <unistd.h>

#include "qor_util.hpp"
#include "thread_record.hpp"

hal_thread_mutex_t trace_mutex = PTHREAD_MUTEX_INITIALIZER;
trace_recording trace_now;

namespace {

/* What a thread needs to write, as long as it lives. Outside the recording's memory: whoever ends
 * the recording must be able to see who is inside, and may then unmap that memory. */
struct trace_writer {
    trace_writer *next;
    uint32_t recording; /* whose lane it has; another's is not used any more */
    uint32_t inside;    /* 1 while the thread is counted in; read by others */
    trace_lane *lane;   /* NULL: the shared one */
};

pthread_key_t key;
bool key_made;         /* guarded by trace_mutex until a recording begins */
trace_writer *writers; /* guarded by trace_mutex */

template <typename T> void put(T &word, T value)
{
    __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}

/* A thread ends. One that a task has ended is inside nothing any more. */
void writer_over(void *arg)
{
    trace_writer *writer = static_cast<trace_writer *>(arg);
    hal_scoped_lock lock(trace_mutex);
    if (trace_now.number && writer->recording == trace_now.number && writer->lane) {
        put(writer->lane->depth, 0u);
    }
    trace_writer **link = &writers;
    while (*link != writer) {
        link = &(*link)->next;
    }
    *link = writer->next;
    free(writer);
}

trace_writer *writer_make()
{
    trace_writer *writer = util_zalloc<trace_writer>();
    if (writer && pthread_setspecific(key, writer) != 0) {
        free(writer);
        return nullptr;
    }
    if (writer) {
        hal_scoped_lock lock(trace_mutex);
        writer->next = writers;
        writers = writer;
    }
    return writer;
}

void lane_name(trace_lane &lane)
{
    const thread_record *record = thread_record_get();
    const thread_role role = record ? record->role : thread_helps;
    lane.role = role == thread_works   ? trace_works
                : role == thread_loops ? trace_loops
                                       : trace_visits;
    if (role == thread_works) { /* which is named after its task at the moment */
        memcpy(lane.thread, "worker", sizeof("worker"));
    } else {
        prctl(PR_GET_NAME, lane.thread);
    }
    lane.tid = static_cast<uint32_t>(syscall(SYS_gettid));
}

/* Gives a thread a lane of the recording, or none. */
void lane_take_locked(trace_writer &writer)
{
    trace_head &head = *trace_now.head;
    writer.recording = trace_now.number;
    writer.lane = nullptr;
    if (head.lanes_taken + 1 < head.lanes) {
        writer.lane = &trace_now.lanes[head.lanes_taken + 1];
        lane_name(*writer.lane);
        hal_store(head.lanes_taken, head.lanes_taken + 1); /* last: it is read from now on */
    } else {
        put(head.lanes_lacking, head.lanes_lacking + 1);
    }
}

/* The calling thread's lane, from construction to destruction: its own, and the thread is counted
 * in; or the shared one, and the lock is held; or NULL when nothing is recorded any more. */
class lane_use {
public:
    lane_use() : writer_(static_cast<trace_writer *>(pthread_getspecific(key)))
    {
        if (!writer_) {
            writer_ = writer_make();
        }
        while (!own_enter()) {
            hal_lock(trace_mutex);
            if (trace_now.number && writer_ && writer_->recording != trace_now.number) {
                lane_take_locked(*writer_);
            }
            if (trace_now.number && (!writer_ || !writer_->lane)) {
                lane_ = trace_now.lanes;
                return;
            }
            const bool over = trace_now.number == 0;
            pthread_mutex_unlock(&trace_mutex);
            if (over) {
                return;
            }
        }
    }
    ~lane_use()
    {
        if (own_) {
            hal_store(writer_->inside, 0u);
        } else if (lane_) {
            pthread_mutex_unlock(&trace_mutex);
        }
    }
    lane_use(const lane_use &) = delete;
    lane_use &operator=(const lane_use &) = delete;

    trace_lane *lane() { return lane_; }
    bool own() const { return own_; }

private:
    /* Either whoever ends the recording sees this thread inside and waits, or this thread sees that
     * it has ended: each writes its word and then reads the other's. */
    bool own_enter()
    {
        if (!writer_ || !writer_->lane) {
            return false;
        }
        __atomic_exchange_n(&writer_->inside, 1u, __ATOMIC_SEQ_CST);
        own_ = writer_->recording == __atomic_load_n(&trace_now.number, __ATOMIC_SEQ_CST);
        lane_ = own_ ? writer_->lane : nullptr;
        if (!own_) {
            hal_store(writer_->inside, 0u);
        }
        return own_;
    }

    trace_writer *writer_;
    trace_lane *lane_ = nullptr;
    bool own_ = false;
};

trace_event &lane_slot(const trace_lane &lane)
{
    const uint32_t events = trace_now.head->events;
    const size_t index = static_cast<size_t>(&lane - trace_now.lanes);
    return trace_now.events[index * events + (lane.written & (events - 1))];
}

void lane_put(trace_lane &lane, uint32_t time, uint32_t what, int32_t session, int32_t arg)
{
    trace_event &slot = lane_slot(lane);
    put(slot.time, time);
    put(slot.what, what);
    put(slot.session, session);
    put(slot.arg, arg);
    const uint32_t written = lane.written + 1;
    if (written == 0) {
        put(lane.written_high, lane.written_high + 1);
    }
    hal_store(lane.written, written);
}

/* An event of that time. When the upper half has changed, an event that holds both goes first: a
 * reader goes backwards from the newest. */
void lane_put_at(trace_lane &lane, uint64_t now, uint32_t what, int32_t session, int32_t arg)
{
    const uint32_t high = static_cast<uint32_t>(now >> 32);
    const uint32_t low = static_cast<uint32_t>(now);
    if (high != lane.time_high) {
        lane_put(lane, low, trace_what(trace_time), static_cast<int32_t>(lane.time_high),
                 static_cast<int32_t>(high));
        hal_store(lane.time_high, high); /* after the count of the event that tells of it */
    }
    lane_put(lane, low, what, session, arg);
}

/* A text in events that continue the one before. They have no time, and of what an event tells only
 * the type, in their first byte: the text has the eleven behind it. */
void lane_put_text(trace_lane &lane, const char *text)
{
    while (*text) {
        uint32_t words[] = {trace_name, 0, 0};
        for (uint32_t i = 1; i <= trace_text_bytes && *text; i++) {
            words[i / 4] |= static_cast<uint32_t>(static_cast<uint8_t>(*text++)) << i % 4 * 8;
        }
        lane_put(lane, 0, words[0], static_cast<int32_t>(words[1]), static_cast<int32_t>(words[2]));
    }
}

/* Whom the thread of a lane is inside, as far as that is kept; a value that nobody has otherwise.
 */
uint32_t lane_whom(const trace_lane &lane, bool own)
{
    if (!own || lane.depth == 0) {
        return 0;
    }
    return lane.depth <= trace_inside_max ? lane.inside[lane.depth - 1].what >> 16 : trace_from_any;
}

void lane_note(lane_use &use, uint64_t now, const trace_note &note)
{
    trace_lane &lane = *use.lane();
    if (note.from != trace_from_any && note.from != lane_whom(lane, use.own())) {
        lane_put_at(lane, now, trace_what(trace_from, 0, note.from), note.session, note.arg);
    }
    lane_put_at(lane, now, note.what, note.session, note.arg);
    if (note.text) {
        lane_put_text(lane, note.text);
    }
}

/* The thread of a lane is inside one thing more. */
void lane_inside(trace_lane &lane, uint64_t now, const trace_note &note)
{
    if (lane.depth < trace_inside_max) {
        trace_event &frame = lane.inside[lane.depth];
        put(lane.changes, lane.changes + 1);
        hal_store(frame.time,
                  static_cast<uint32_t>(now >> 20)); /* all of them after the word above */
        hal_store(frame.what, note.what);
        hal_store(frame.session, note.session);
        hal_store(frame.arg, note.arg);
        hal_store(lane.changes, lane.changes + 1);
    } else if ((note.what & 0xff) == trace_wait) {
        hal_store(lane.waits, note.what); /* it is inside nothing more until that is over */
    }
    hal_store(lane.depth, lane.depth + 1);
}

/* When the library is unloaded: a process that opens it again and again would run out of keys. */
__attribute__((destructor)) void lanes_close()
{
    if (key_made) {
        pthread_key_delete(key);
    }
    while (writers) {
        trace_writer *writer = writers;
        writers = writer->next;
        free(writer);
    }
}

} // namespace

int32_t trace_lanes_open_locked()
{
    if (!key_made) {
        if (pthread_key_create(&key, writer_over) != 0) {
            return -1;
        }
        key_made = true;
    }
    return 0;
}

void trace_lanes_await_locked()
{
    constexpr struct timespec pause = {0, 100000};
    for (const trace_writer *writer = writers; writer; writer = writer->next) {
        while (__atomic_load_n(&writer->inside, __ATOMIC_SEQ_CST)) {
            nanosleep(&pause, nullptr); /* yielding does not let a lower priority go on */
        }
    }
}

void trace_lanes_forget_locked()
{
    for (trace_writer *writer = writers; writer; writer = writer->next) {
        writer->inside = 0;
        writer->recording = 0;
        writer->lane = nullptr;
    }
}

void trace_lane_note(const trace_note &note)
{
    lane_use use;
    if (use.lane()) {
        lane_note(use, trace_now.clock(), note);
    }
}

trace_begun trace_lane_begin(const trace_note &note, uint32_t class_)
{
    lane_use use;
    if (!use.lane()) {
        return {};
    }
    const bool noted = trace_on(class_);
    const uint64_t now = trace_now.clock();
    if (noted) {
        lane_note(use, now, note);
    }
    if (use.own()) {
        lane_inside(*use.lane(), now, note);
    }
    return {trace_now.number << 1 | (noted ? 1 : 0), note.what, note.session};
}

void trace_lane_end(const trace_begun &begun, const trace_note &note)
{
    lane_use use;
    trace_lane *lane = use.lane();
    if (!lane || trace_now.number != begun.recording >> 1) {
        return;
    }
    if (use.own() && lane->depth > 0) {
        hal_store(lane->waits, 0u);
        hal_store(lane->depth, lane->depth - 1);
    }
    if (begun.recording & 1) {
        lane_note(use, trace_now.clock(), note);
    }
}

void trace_lane_name(const qor_bus_t *bus, uint32_t who, const trace_named &named)
{
    hal_scoped_lock lock(trace_mutex);
    if (!trace_now.number || trace_now.bus != bus) {
        return;
    }
    if (who >= trace_now.head->names) {
        put(trace_now.head->names_lost, trace_now.head->names_lost + 1);
        return;
    }
    trace_naming naming = {};
    util_name_copy(naming.name, named.name);
    naming.role = named.role;
    naming.flags = static_cast<uint16_t>(named.flags);
    naming.limit = static_cast<uint16_t>(named.limit < UINT16_MAX ? named.limit : UINT16_MAX);
    naming.depth = named.depth;
    trace_now.names[who] = naming;
}

const trace_lane *trace_lane_mine_locked()
{
    const trace_writer *writer = static_cast<trace_writer *>(pthread_getspecific(key));
    return writer && writer->recording == trace_now.number ? writer->lane : nullptr;
}

void trace_lane_copy_locked(const trace_lane &lane, trace_lane &copy)
{
    constexpr uint32_t tries = 100;
    memcpy(copy.thread, lane.thread, sizeof(copy.thread));
    copy.tid = lane.tid;
    copy.role = lane.role;
    copy.changes = 0;
    uint32_t left = tries;
    uint32_t before;
    do { /* the words of an event and the two that count it belong together, too */
        before = hal_load(lane.changes);
        copy.written = hal_load(lane.written);
        copy.written_high = hal_load(lane.written_high);
        copy.time_high = hal_load(lane.time_high);
        copy.depth = hal_load(lane.depth);
        copy.waits = hal_load(lane.waits);
        for (uint32_t i = 0; i < trace_inside_max; i++) {
            copy.inside[i].time = hal_load(lane.inside[i].time);
            copy.inside[i].what = hal_load(lane.inside[i].what);
            copy.inside[i].session = hal_load(lane.inside[i].session);
            copy.inside[i].arg = hal_load(lane.inside[i].arg);
        }
    } while (--left > 0 && (before % 2 != 0 || before != hal_load(lane.changes) ||
                            copy.written != hal_load(lane.written)));
    if (left == 0) {
        copy.depth = 0;
    }
}
