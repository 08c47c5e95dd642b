/* SPDX-License-Identifier: Apache-2.0 */
#include "traffic.hpp"

#include <cstring>

#include "qor_contract.h"
#include "qor_deferred.h"
#include "qor_health.h"
#include "qor_inspect.h"
#include "qor_start.h"
#include "traffic_turn.hpp"

Sums sums;

namespace {

constexpr int32_t completed_ret = 1000;
constexpr int32_t failed_ret = -77;

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

} // namespace

Traffic::Traffic(Book &book, uint32_t workers) : book_(book)
{
    latest_ = this;
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
    Request &request = book_.requests[question.number];
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
    const int32_t number = static_cast<int32_t>(book_.requests.number_of(request));
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
        must(add(book_.requests[question.number].completed) == 0, "request %d is completed once",
             question.number);
        add(sums.completed);
    }
    box.compare_exchange_strong(token, 0, std::memory_order_relaxed);
}

void Traffic::answered(int self, const qor_context_msg_t *msg)
{
    Question question;
    read(question, msg);
    Request &request = book_.requests[question.number];
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
    Request &request = book_.requests[question.number];
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
    const int64_t number = book_.requests.open();
    if (number < 0) {
        return;
    }
    Request &request = book_.requests[number];
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
    const int64_t number = asking_.load(std::memory_order_relaxed) ? book_.requests.open() : -1;
    if (number < 0) {
        return;
    }
    Request &request = book_.requests[number];
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

void Traffic::act()
{
    static const int posters[] = {plain, later, promised, strict, counted, observer};
    Turn::outside = true;
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

int64_t Traffic::round_trip()
{
    asking_.store(false, std::memory_order_relaxed);
    const int64_t number = book_.requests.open();
    must(number >= 0, "there is room in the book");
    Request &request = book_.requests[number];
    Question question = {static_cast<int32_t>(number), noise_of(static_cast<int32_t>(number)), -1};
    qor_context_session(context(later), &question.session);
    request.topic.store(leaf_topic, std::memory_order_relaxed);
    add(open_);
    const Clock::time_point begin = Clock::now();
    const bool accepted = qor_context_req_ret_s(context(later), question.session, leaf_topic,
                                                &question, sizeof(question), sizeof(Answer)) >= 0;
    while (accepted && value(request.responses) == 0) {
        std::this_thread::yield();
    }
    const std::chrono::nanoseconds took = Clock::now() - begin;
    must(accepted, "a request on a bus that rests is accepted");
    add(request.accepted);
    add(sums.requests);
    asking_.store(true, std::memory_order_relaxed);
    return took.count();
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
