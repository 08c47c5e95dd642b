/* SPDX-License-Identifier: Apache-2.0 */
#include "traffic.hpp"

#include <cstring>

#include "qor_contract.h"
#include "qor_deferred.h"
#include "qor_health.h"
#include "qor_inspect.h"
#include "qor_periodic.h"
#include "qor_start.h"

Sums sums;

namespace {

constexpr int64_t open_max = 150; /* requests, that a bus keeps up with what it is asked */
constexpr int32_t completed_ret = 1000;
constexpr int32_t failed_ret = -77;

Traffic *now; /* the one there is, for the functions of tasks */

int32_t ret_of(int32_t number)
{
    return number % 97;
}

void read(Question &question, const qor_context_msg_t *msg)
{
    must(msg->request.size == static_cast<int32_t>(sizeof(question)), "a request keeps its size");
    std::memcpy(&question, msg->request.buf, sizeof(question));
    must(question.noise == noise_of(question.number) && question.session == msg->session,
         "request %d is what was asked", question.number);
}

uint64_t accounted(const qor_ledger_t &l)
{
    return l.run + l.running + l.waiting + l.delayed + l.dropped_oldest + l.dropped_newest +
           l.dropped_transfer + l.cancelled + l.discarded + l.transferred;
}

int as_int(const Count &count)
{
    return static_cast<int>(value(count));
}

} // namespace

/* A strict module's turn: nothing else of it runs meanwhile. */
class Traffic::Turn {
public:
    Turn(Traffic &traffic, int module)
        : turns_(traffic.is_strict(module) ? &traffic.turns_[module] : nullptr)
    {
        if (turns_) {
            turns_->count++;
            must(turns_->inside++ == 0, "a strict module has one turn at a time");
        }
        if (traffic.work) {
            traffic.work();
        }
    }
    ~Turn()
    {
        if (turns_) {
            turns_->inside--;
        }
    }
    Turn(const Turn &) = delete;
    Turn &operator=(const Turn &) = delete;

private:
    Turns *const turns_;
};

Traffic::Traffic(uint32_t workers) : book_(new Book)
{
    now = this;
    add_modules();
    bus_ = qor_bus_create(table_.data(), topics);
    must(bus_, "there is a bus");
    qor_bus_thread_num_set(bus_, workers);
    promise(promised, false);
    promise(strict, false);
    promise(counted, dice(2));
}

Traffic::~Traffic()
{
    must(!bus_, "the bus has been ended");
}

void Traffic::add_modules()
{
    static const char *const names[] = {"plain",   "later",    "promised", "strict",
                                        "counted", "observer", "roamer"};
    static const int32_t serves[] = {plain_topic,   later_topic, -1, strict_topic,
                                     counted_topic, -1,          -1};
    for (int i = 0; i < modules; i++) {
        all_.push_back(std::make_unique<Module>(names[i], i != later && i != roamer));
        Module &module = *all_.back();
        module.descriptor.refcount = i == plain ? 2 : i == later ? -1 : 0;
        module.reg = [i](qor_context_t *self) {
            if (serves[i] >= 0) {
                qor_context_subscribe(self, serves[i], nullptr);
            }
            if (i == plain) {
                qor_context_subscribe(self, leaf_topic, nullptr);
            }
            for (int32_t topic = 0; i == observer && topic < topics; topic++) {
                qor_context_filter(self, topic, nullptr);
                qor_context_listen(self, topic, nullptr);
            }
            if (i == strict) {
                qor_context_listen(self, plain_topic, nullptr);
            }
        };
        module.handle = [this, i](qor_context_t *self, qor_context_msg_t *msg) {
            return receive(i, self, msg);
        };
        table_.push_back(&module.descriptor);
    }
    table_.push_back(nullptr);
}

void Traffic::promise(int module, bool waits)
{
    static const int32_t policies[] = {QOR_OVERFLOW_REFUSE, QOR_OVERFLOW_DROP_OLDEST,
                                       QOR_OVERFLOW_DROP_NEWEST};
    qor_contract_t contract;
    qor_contract_init(&contract);
    contract.strict = is_strict(module);
    if (is_strict(module)) {
        contract.depth = depth_ = 4 + dice(12);
        contract.overflow = waits ? QOR_OVERFLOW_BLOCK : policies[dice(3)];
        contract.wait_time = waits ? static_cast<int32_t>(1 + dice(4)) : 0;
        contract.open_max = dice(4);
        contract.replies = 8 + dice(40);
    }
    must(qor_bus_contract_set(bus_, all_[module]->descriptor.name, &contract) == 0,
         "a contract is taken");
}

void Traffic::begin()
{
    loop_ = std::thread([this] { must(qor_bus_loop(bus_) == 0, "the loop ends well"); });
    Watchdog::at("the start of a bus");
    must(qor_bus_wait_up(bus_, -1, nullptr) == 0, "all modules are up");
    Watchdog::at("a bus");
}

int32_t Traffic::receive(int self, qor_context_t *context, qor_context_msg_t *msg)
{
    if (msg->type == QOR_CONTEXT_MSG_FILTER_BEFORE || msg->type == QOR_CONTEXT_MSG_FILTER_AFTER) {
        shown(msg);
        return 0;
    }
    Turn turn(*this, msg->topic == leaf_topic ? plain : self);
    switch (msg->type) {
    case QOR_CONTEXT_MSG_REQUEST:
        return serve(self, context, msg);
    case QOR_CONTEXT_MSG_RESPONSE:
        answered(self, msg);
        return 0;
    default:
        if (self == observer) {
            shown(msg);
        }
        return 0;
    }
}

/* Answers at once, or later, or does something of its own first. */
int32_t Traffic::serve(int self, qor_context_t *context, qor_context_msg_t *msg)
{
    Question question;
    read(question, msg);
    Request &request = book_->requests[question.number];
    must(add(request.handled) == 0, "request %d is handled once", question.number);
    const Answer answer = {question.number, ~question.noise};
    std::memcpy(msg->response.buf, &answer, sizeof(answer));
    if (msg->topic == leaf_topic) {
        return ret_of(question.number);
    }
    switch (dice(12)) {
    case 0:
    case 1:
        return defer(context, msg, request);
    case 2:
        call_from(self);
        break;
    case 3:
        ask_from(self, static_cast<int32_t>(dice(leaf_topic)));
        break;
    case 4:
        post(self);
        break;
    default:
        break;
    }
    return ret_of(question.number);
}

/* The request stays open, if it may, until somebody completes it, its time is over, or the handler
 * gives less than 0. */
int32_t Traffic::defer(qor_context_t *context, qor_context_msg_t *msg, Request &request)
{
    const int32_t number = static_cast<int32_t>(book_->requests.number_of(request));
    uint64_t token = 0;
    const int32_t wait = dice(2) ? -1 : static_cast<int32_t>(1 + dice(3));
    if (qor_context_defer(context, msg, wait, &token) != 0) {
        return ret_of(number);
    }
    add(request.deferred);
    std::atomic<uint64_t> taken{token};
    if (dice(8) == 0) {
        return failed_ret;
    }
    if (dice(8) == 0) {
        complete(taken);
        return 0;
    }
    if (wait > 0 && dice(2)) {
        return 0; /* its time ends it */
    }
    /* Whoever was in the box is completed in its stead, perhaps by two threads at once. */
    std::atomic<uint64_t> &box = boxes_[dice(8)];
    taken = box.exchange(token, std::memory_order_relaxed);
    complete(taken);
    return 0;
}

/* The token stays in its box until it is refused, so two may complete it at once. */
void Traffic::complete(std::atomic<uint64_t> &box)
{
    uint64_t token = box.load(std::memory_order_relaxed);
    Question question;
    if (token == 0 || qor_deferred_request(token, &question, sizeof(question)) < 0) {
        box.compare_exchange_strong(token, 0, std::memory_order_relaxed);
        return;
    }
    must(question.noise == noise_of(question.number), "an open request is what was asked");
    const Answer answer = {question.number, ~question.noise};
    if (qor_deferred_complete(token, completed_ret + ret_of(question.number), &answer,
                              sizeof(answer)) == 0) {
        must(add(book_->requests[question.number].completed) == 0, "request %d is completed once",
             question.number);
        add(sums.completed);
    }
    box.compare_exchange_strong(token, 0, std::memory_order_relaxed);
}

void Traffic::answered(int self, const qor_context_msg_t *msg)
{
    Question question;
    read(question, msg);
    Request &request = book_->requests[question.number];
    must(add(request.responses) == 0, "request %d is answered once", question.number);
    add(sums.responses);
    add(open_, -1);
    if (msg->ret == QOR_RET_DROPPED) {
        add(request.dropped);
        add(sums.dropped);
    } else if (msg->ret == QOR_RET_EXPIRED) {
        add(request.expired);
        add(sums.expired);
    } else {
        Answer answer;
        std::memcpy(&answer, msg->response.buf, sizeof(answer));
        const int32_t ret = ret_of(question.number);
        must(answer.number == question.number && answer.mixed == ~question.noise &&
                 (msg->ret == ret || msg->ret == completed_ret + ret || msg->ret == failed_ret),
             "the response to request %d is its own, not %d", question.number, msg->ret);
    }
    if (dice(4) == 0) {
        ask_from(self, static_cast<int32_t>(dice(leaf_topic)));
    }
}

/* What the observer sees of a request. */
void Traffic::shown(const qor_context_msg_t *msg)
{
    Question question;
    read(question, msg);
    Request &request = book_->requests[question.number];
    add(sums.shown);
    switch (msg->type) {
    case QOR_CONTEXT_MSG_FILTER_BEFORE:
        add(request.before);
        break;
    case QOR_CONTEXT_MSG_FILTER_AFTER:
        add(request.after);
        break;
    case QOR_CONTEXT_MSG_LISTEN_BEFORE:
        add(request.heard_before);
        break;
    default:
        add(request.heard_after);
        break;
    }
}

/* A module that serves topics of others, or watches one, for a while. */
void Traffic::roam()
{
    qor_context_t *self = context(roamer);
    const int32_t topic = dice(2) ? plain_topic : strict_topic;
    switch (dice(5)) {
    case 0:
        qor_context_subscribe(self, topic, nullptr);
        break;
    case 1:
        qor_context_listen(self, later_topic, nullptr);
        break;
    case 2:
        qor_context_handler_unlisten(static_cast<qor_context_t *>(qor_context_pub_data_get(self)),
                                     later_topic);
        break;
    default:
        qor_context_unsubscribe(self, topic);
        break;
    }
}

void Traffic::ask()
{
    static const int askers[] = {plain, later, promised, strict};
    ask_from(askers[dice(4)], static_cast<int32_t>(dice(leaf_topic)));
}

void Traffic::ask_from(int asker, int32_t topic)
{
    /* One with a bound on its own requests may be refused for that, which is not the ledger's that
     * is compared. The counted module asks nobody. */
    const bool compared = asker == plain || asker == later;
    if (!asking_.load(std::memory_order_relaxed) || value(open_) > open_max || asker == counted ||
        (topic == counted_topic && !compared)) {
        return;
    }
    const int64_t number = book_->requests.open();
    if (number < 0) {
        return;
    }
    Request &request = book_->requests[number];
    Question question = {static_cast<int32_t>(number), noise_of(static_cast<int32_t>(number)), -1};
    qor_context_session(context(asker), &question.session);
    request.topic.store(topic, std::memory_order_relaxed);
    add(open_);
    const bool accepted = qor_context_req_ret_s(context(asker), question.session, topic, &question,
                                                sizeof(question), sizeof(Answer)) >= 0;
    add(accepted ? sums.requests : sums.refused);
    add(request.accepted, accepted);
    add(open_, accepted - 1);
}

void Traffic::call_from(int asker)
{
    const int64_t number = asking_.load(std::memory_order_relaxed) ? book_->requests.open() : -1;
    if (number < 0) {
        return;
    }
    Request &request = book_->requests[number];
    Question question = {static_cast<int32_t>(number), noise_of(static_cast<int32_t>(number)), -1};
    Answer answer = {};
    qor_context_session(context(asker), &question.session);
    request.topic.store(leaf_topic, std::memory_order_relaxed);
    request.synchronous.store(true, std::memory_order_relaxed);
    if (qor_context_x_req_ret_s(context(asker), question.session, leaf_topic, &question,
                                sizeof(question), &answer, sizeof(answer)) >= 0) {
        add(request.accepted);
        add(sums.calls);
        must(answer.number == question.number && answer.mixed == ~question.noise,
             "a call gives its own response");
    }
}

void *Traffic::ran(void *arg)
{
    Task &task = *static_cast<Task *>(arg);
    Turn turn(*now, task.module.load(std::memory_order_relaxed));
    must(add(task.runs) == 0, "a task runs once");
    add(sums.ran);
    if (dice(4) == 0) {
        now->ask_from(task.module == counted ? plain : task.module.load(), later_topic);
    }
    return nullptr;
}

void Traffic::recycled(void *arg)
{
    Task &task = *static_cast<Task *>(arg);
    const int64_t times = task.kind.load(std::memory_order_relaxed) == Task::bus_timer ? 2 : 1;
    must(add(task.recycles) < times, "a task is recycled once, or twice if it is a bus's timer");
}

void Traffic::post(int module)
{
    const int64_t number = asking_.load(std::memory_order_relaxed) ? book_->tasks.open() : -1;
    if (number < 0) {
        return;
    }
    Task &task = book_->tasks[number];
    qor_context_task_t made = {};
    int32_t session = -1;
    qor_context_session(context(module), &session);
    task.module.store(module, std::memory_order_relaxed);
    task.session.store(session, std::memory_order_relaxed);
    qor_context_task_init(&made, context(module), "posted", session, ran, &task);
    made.recycle = recycled;
    made.async = is_strict(module) ? 0 : static_cast<int32_t>(dice(2));
    made.delay = static_cast<int32_t>(dice(4));
    if (module != counted && dice(16) == 0) {
        made.delay = 60000;
    }
    if (qor_context_handler_post(context(module), &made) >= 0) {
        add(task.taken);
        add(sums.tasks);
    }
}

void Traffic::post_to_bus()
{
    const int64_t number = book_->tasks.open();
    if (number < 0) {
        return;
    }
    Task &task = book_->tasks[number];
    task.module.store(plain, std::memory_order_relaxed);
    if (dice(2)) {
        task.kind.store(Task::of_bus, std::memory_order_relaxed);
        add(task.taken, qor_bus_run(bus_, ran, &task, recycled) == 0);
    } else {
        task.kind.store(Task::bus_timer, std::memory_order_relaxed);
        qor_context_task_t made = {};
        qor_context_task_init(&made, nullptr, nullptr, qor_bus_session(bus_), ran, &task);
        made.recycle = recycled;
        made.delay = static_cast<int32_t>(1 + dice(3));
        add(task.taken, qor_bus_timer_post(bus_, &made) == 0);
    }
    add(sums.tasks, value(task.taken));
}

/* One of the latest tasks, which may run meanwhile. */
void Traffic::cancel()
{
    const int64_t used = book_->tasks.used();
    const int64_t back = 1 + dice(10);
    if (used < back) {
        return;
    }
    Task &task = book_->tasks[used - back];
    const int32_t module = task.module.load(std::memory_order_relaxed);
    const int32_t session = task.session.load(std::memory_order_relaxed);
    if (module >= 0 && session >= 0 && qor_context_timer_cancel(context(module), session) == 0) {
        must(add(task.cancelled) == 0, "a task is cancelled once");
        add(sums.cancelled);
    }
}

void Traffic::beaten(qor_context_t *, int32_t, void *arg, uint32_t)
{
    Beat &beat = *static_cast<Beat *>(arg);
    Turn turn(*now, beat.module.load(std::memory_order_relaxed));
    must(beat.inside++ == 0, "a periodic timer never runs beside itself");
    must(value(beat.recycles) == 0, "a periodic timer that has ended does not run");
    beat.runs++;
    add(sums.beats);
    beat.inside--;
}

void Traffic::beat_over(void *arg)
{
    Beat &beat = *static_cast<Beat *>(arg);
    must(beat.inside == 0, "a periodic timer ends after its run");
    must(add(beat.recycles) == 0, "a periodic timer is recycled once");
}

void Traffic::arm()
{
    const int64_t number = book_->beats.open();
    if (number < 0) {
        return;
    }
    static const int owners[] = {plain, strict, promised};
    Beat &beat = book_->beats[number];
    const int module = owners[dice(3)];
    beat.module.store(module, std::memory_order_relaxed);
    const int32_t session = qor_context_every(context(module), beaten, &beat, beat_over,
                                              static_cast<int32_t>(1 + dice(4)));
    add(beat.taken, session >= 0);
    beat.session.store(session, std::memory_order_relaxed);
}

void Traffic::cancel_beat()
{
    const int64_t used = book_->beats.used();
    if (used > 0) {
        Beat &beat =
            book_->beats[used > 4 ? used - 1 - dice(4) : dice(static_cast<uint32_t>(used))];
        const int32_t session = beat.session.load(std::memory_order_relaxed);
        if (session >= 0) {
            qor_context_timer_cancel(context(plain), session);
        }
    }
}

void Traffic::cancel_beats()
{
    for (int64_t i = 0; i < book_->beats.used(); i++) {
        qor_context_timer_cancel(context(plain), book_->beats[i].session);
    }
}

qor_ledger_t Traffic::ledger(int module)
{
    qor_ledger_t ledger = {};
    ledger.size = sizeof(ledger);
    must(qor_bus_ledger(bus_, all_[module]->descriptor.name, &ledger) == 0, "there is a ledger");
    return ledger;
}

/* Whatever the moment, each ledger adds up. */
void Traffic::look()
{
    for (int module : {promised, strict, counted}) {
        const qor_ledger_t l = ledger(module);
        must(l.accepted == accounted(l), "the ledger of %s adds up", all_[module]->descriptor.name);
        must(!is_strict(module) || l.running <= 1, "a strict module runs one task at a time");
        must(module != counted || l.highest <= depth_, "no more wait than there is room for");
    }
}

void Traffic::act()
{
    static const int posters[] = {plain, later, promised, strict, counted, observer};
    switch (dice(32)) {
    case 0:
        look();
        break;
    case 1:
        if (qor_bus_drain(bus_, static_cast<int32_t>(dice(3))) == 0) {
            add(sums.drains);
        }
        break;
    case 2:
        qor_bus_wait_up(bus_, 0, nullptr);
        break;
    case 3:
        call_from(static_cast<int>(dice(modules)));
        break;
    case 4:
    case 5:
        roam();
        break;
    case 6:
        if (dice(4) == 0) {
            arm();
        }
        break;
    case 7:
        if (dice(12) == 0) {
            cancel_beat();
        }
        break;
    case 8:
    case 9:
        cancel();
        break;
    case 10:
    case 11:
    case 12:
        post(posters[dice(6)]);
        break;
    case 13:
        post_to_bus();
        break;
    case 14:
        if (dice(8) == 0) {
            qor_bus_dump(
                bus_, [](void *, const char *) {}, nullptr);
        }
        break;
    case 15:
        complete(boxes_[dice(8)]);
        break;
    default:
        ask();
        break;
    }
}

void Traffic::settle()
{
    Watchdog::at("the drain of a bus");
    asking_.store(false, std::memory_order_relaxed);
    cancel_beats();
    bool open = true;
    while (open || ledger(counted).delayed > 0) {
        for (std::atomic<uint64_t> &box : boxes_) {
            complete(box);
        }
        open = qor_bus_drain(bus_, 20) != 0;
        std::this_thread::yield();
    }
    must(qor_bus_drain(bus_, -1) == 0, "nothing is left to do");
    check_requests(true);
    check_ledger();
    look();
    asking_.store(true, std::memory_order_relaxed);
    Watchdog::at("a bus");
}

/* Each request that was accepted is answered once; on a bus that has quit, at most once. */
void Traffic::check_requests(bool settled)
{
    for (int64_t i = 0; i < book_->requests.used(); i++) {
        const Request &r = book_->requests[i];
        const int number = static_cast<int>(i), topic = r.topic;
        const int64_t accepted = value(r.accepted);
        if (r.synchronous) {
            must(value(r.handled) >= accepted && value(r.responses) == 0, "call %d is handled",
                 number);
        } else {
            must(value(r.responses) <= accepted && (!settled || value(r.responses) == accepted),
                 "request %d on topic %d, of which %d are accepted, has %d responses: handled %d, "
                 "deferred %d, completed %d, expired %d, dropped %d",
                 number, topic, static_cast<int>(accepted), as_int(r.responses), as_int(r.handled),
                 as_int(r.deferred), as_int(r.completed), as_int(r.expired), as_int(r.dropped));
        }
        must(value(r.completed) + value(r.expired) <= value(r.deferred),
             "deferred request %d ends once", number);
        if (settled && accepted > 0) {
            must(value(r.handled) + value(r.dropped) == 1, "request %d is handled or dropped",
                 number);
            must(value(r.before) == value(r.after) && value(r.heard_before) == value(r.heard_after),
                 "what is shown of request %d before is shown after", number);
            must((value(r.before) == 1 && value(r.heard_before) == 1) || value(r.dropped) == 1,
                 "request %d on topic %d is shown to who watches, not %d times and %d", number,
                 topic, as_int(r.before), as_int(r.heard_before));
        }
    }
}

/* The module whose ledger has nothing in it but what is booked here. */
void Traffic::check_ledger()
{
    uint64_t accepted = 0, ended = 0, cancelled = 0;
    for (int64_t i = 0; i < book_->requests.used(); i++) {
        const Request &r = book_->requests[i];
        const bool mine = r.topic == counted_topic;
        accepted += mine ? static_cast<uint64_t>(value(r.accepted)) : 0;
        ended += mine ? static_cast<uint64_t>(value(r.handled)) : 0;
    }
    for (int64_t i = 0; i < book_->tasks.used(); i++) {
        const Task &t = book_->tasks[i];
        const bool mine = t.module == counted;
        accepted += mine ? static_cast<uint64_t>(value(t.taken)) : 0;
        ended += mine ? static_cast<uint64_t>(value(t.runs)) : 0;
        cancelled += mine ? static_cast<uint64_t>(value(t.cancelled)) : 0;
    }
    const qor_ledger_t l = ledger(counted);
    must(l.accepted == accepted && l.run == ended && l.cancelled == cancelled && l.running == 0 &&
             l.waiting == 0 && l.open == 0,
         "the ledger is right: accepted %d, not %d; run %d, not %d; cancelled %d, not %d; running "
         "%d, waiting %d, open %d",
         static_cast<int>(l.accepted), static_cast<int>(accepted), static_cast<int>(l.run),
         static_cast<int>(ended), static_cast<int>(l.cancelled), static_cast<int>(cancelled),
         static_cast<int>(l.running), static_cast<int>(l.waiting), static_cast<int>(l.open));
}

/* On a bus that is gone. */
void Traffic::check_tasks()
{
    for (int64_t i = 0; i < book_->tasks.used(); i++) {
        const Task &t = book_->tasks[i];
        const int number = static_cast<int>(i);
        const bool twice = t.kind == Task::bus_timer && value(t.taken) > 0;
        must(value(t.runs) <= value(t.taken) && value(t.runs) + value(t.cancelled) <= 1,
             "task %d, taken %d, runs or is cancelled: %d, %d", number, as_int(t.taken),
             as_int(t.runs), as_int(t.cancelled));
        must(twice ? value(t.recycles) == 2 || (value(t.recycles) == 1 && value(t.runs) == 0)
                   : value(t.recycles) == value(t.taken),
             "task %d of kind %d, taken %d, ran %d, is recycled, not %d times", number,
             static_cast<int>(t.kind.load()), as_int(t.taken), as_int(t.runs), as_int(t.recycles));
    }
    for (int64_t i = 0; i < book_->beats.used(); i++) {
        const Beat &b = book_->beats[i];
        must(value(b.recycles) == value(b.taken), "periodic timer %d is recycled",
             static_cast<int>(i));
    }
}

void Traffic::end()
{
    Watchdog::at("the end of a bus");
    loop_.join();
    qor_bus_close(bus_);
    bus_ = nullptr;
    check_requests(false);
    check_tasks();
    add(sums.buses);
}
