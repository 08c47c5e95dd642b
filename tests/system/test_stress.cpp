/* SPDX-License-Identifier: Apache-2.0 */
/* Many modules that ask each other, with everything else that a bus does going on beside it. */
#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "running_bus.hpp"

namespace {

#if defined(__has_feature)
#define QOR_HAS_FEATURE(x) __has_feature(x)
#else
#define QOR_HAS_FEATURE(x) 0
#endif
#if defined(__SANITIZE_THREAD__) || QOR_HAS_FEATURE(thread_sanitizer)
constexpr int32_t total = 40000; /* costs about ten times as much */
#else
constexpr int32_t total = 200000;
#endif

constexpr int32_t modules = 8;
constexpr uint32_t workers = 4;
constexpr int32_t window = 12; /* requests of a module that are under way at once */
constexpr int32_t per_module = total / modules;

/* What travels. The response is made of the request, so that a mix-up shows. */
struct Question {
    int32_t number;
    uint32_t noise;
};

struct Answer {
    uint32_t mixed;
    int32_t number;
    int32_t served_by;
};

uint32_t noise_of(int32_t number)
{
    return static_cast<uint32_t>(number) * 2654435761u;
}

int32_t ret_of(int32_t number)
{
    return number % 97;
}

/* One request: what was asked, and how often it was answered. */
struct Slot {
    int32_t session = -1; /* written before the request is published */
    int32_t topic = -1;
    std::atomic<int32_t> responses{0};
};

class Stress : public testing::Test {
protected:
    Stress() : slots(new Slot[total])
    {
        for (int32_t i = 0; i < modules; i++) {
            all.push_back(std::make_unique<Module>("module" + std::to_string(i)));
            Module &module = *all.back();
            module.descriptor.pure = i % 2;
            module.descriptor.refcount = i % 3 == 2 ? -1 : i % 3;
            module.reg = [this, i](qor_context_t *context) { join(context, i); };
            module.handle = [this, i](qor_context_t *context, qor_context_msg_t *msg) {
                return receive(context, i, msg);
            };
            table.push_back(&module);
        }
    }

    /* Each module serves the topic of its number; 1 filters and 2 listens on some of them. */
    void join(qor_context_t *context, int32_t self)
    {
        EXPECT_EQ(qor_context_subscribe(context, self, nullptr), 0);
        if (self == 1) {
            EXPECT_EQ(qor_context_filter(context, 3, nullptr), 0);
            qor_context_topic_attr_t before = {2, QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE, 0};
            EXPECT_EQ(qor_context_filter(context, 4, &before), 0);
        } else if (self == 2) {
            qor_context_topic_attr_t others = {
                2, QOR_CONTEXT_TOPIC_ATTR_POINT_AROUND | QOR_CONTEXT_TOPIC_ATTR_POINT_EXCEPT_SELF,
                0};
            EXPECT_EQ(qor_context_listen(context, 3, &others), 0);
            qor_context_topic_attr_t after = {2, QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER, 0};
            EXPECT_EQ(qor_context_listen(context, 5, &after), 0);
        }
    }

    int32_t receive(qor_context_t *context, int32_t self, qor_context_msg_t *msg)
    {
        Question question;
        std::memcpy(&question, msg->request.buf, sizeof(question));
        if (question.noise != noise_of(question.number)) {
            wrong++;
        }
        switch (msg->type) {
        case QOR_CONTEXT_MSG_REQUEST: {
            const Answer answer = {~question.noise, question.number, self};
            std::memcpy(msg->response.buf, &answer, sizeof(answer));
            return ret_of(question.number);
        }
        case QOR_CONTEXT_MSG_RESPONSE:
            check(self, question.number, msg);
            ask(context, self);
            return 0;
        case QOR_CONTEXT_MSG_FILTER_BEFORE:
        case QOR_CONTEXT_MSG_FILTER_AFTER:
            filtered++;
            return -1;
        default:
            heard++;
            return -1;
        }
    }

    void check(int32_t self, int32_t number, const qor_context_msg_t *msg)
    {
        Slot &slot = slots[number];
        Answer answer;
        std::memcpy(&answer, msg->response.buf, sizeof(answer));
        const bool right = number / per_module == self && msg->session == slot.session &&
                           msg->topic == slot.topic && msg->ret == ret_of(number) &&
                           msg->response.size == static_cast<int32_t>(sizeof(answer)) &&
                           answer.mixed == ~noise_of(number) && answer.number == number &&
                           answer.served_by == slot.topic;
        if (!right) {
            wrong++;
        }
        slot.responses++;
        answered++;
    }

    /* Publishes the module's next request, if any is left; now and then does something else too. */
    void ask(qor_context_t *context, int32_t self)
    {
        const int32_t number = self * per_module + next[self]++;
        if (number >= (self + 1) * per_module) {
            return;
        }
        Slot &slot = slots[number];
        slot.topic = (self + 1 + number % (modules - 1)) % modules;
        qor_context_session(context, &slot.session);
        Question question = {number, noise_of(number)};
        if (qor_context_req_ret_s(context, slot.session, slot.topic, &question, sizeof(question),
                                  sizeof(Answer)) != slot.session) {
            wrong++;
        }
        if (number % 16 == 0) {
            timers++;
            qor_context_timer(context, ring, this, 1 + number % 3);
        } else if (number % 16 == 8) {
            const int32_t session = qor_context_timer(context, never, this, 3600000);
            /* One that the queue had no room for is a timer of the bus, and not found. */
            refused += qor_context_timer_cancel(context, session) < 0;
        }
    }

    static void *ring(void *arg)
    {
        static_cast<Stress *>(arg)->rung++;
        return nullptr;
    }

    static void *never(void *arg)
    {
        static_cast<Stress *>(arg)->wrong++;
        return nullptr;
    }

    /* A minute without a further answer is too long. */
    bool await_all() const
    {
        for (int32_t before = -1; answered < total;) {
            if (answered == before) {
                return false;
            }
            before = answered;
            await([&] { return answered >= total || answered > before + 1000; });
        }
        return true;
    }

    /* Requests to one topic; those of one module are left out. */
    int32_t asked(int32_t topic, int32_t except = -1) const
    {
        int32_t count = 0;
        for (int32_t number = 0; number < total; number++) {
            count += slots[number].topic == topic && number / per_module != except;
        }
        return count;
    }

    Output out;
    std::unique_ptr<Slot[]> slots;
    std::vector<std::unique_ptr<Module>> all;
    std::vector<Module *> table;
    std::atomic<int32_t> next[modules] = {};
    std::atomic<int32_t> answered{0}, wrong{0};
    std::atomic<int32_t> filtered{0}, heard{0};
    std::atomic<int32_t> timers{0}, rung{0}, refused{0};
};

} // namespace

TEST_F(Stress, EveryRequestGetsOneResponseWithItsSessionResultAndPayload)
{
    RunningBus bus(table, modules, workers);
    ASSERT_TRUE(bus.up());
    for (int32_t self = 0; self < modules; self++) {
        for (int32_t i = 0; i < window; i++) {
            ask(table[static_cast<size_t>(self)]->context(), self);
        }
    }

    EXPECT_TRUE(await_all());

    const int32_t to_filter = 2 * asked(3) + asked(4);
    const int32_t to_hear = 2 * asked(3, 2) + asked(5);
    EXPECT_TRUE(await([&] { return filtered >= to_filter && heard >= to_hear && rung >= timers; }));
    bus.end();
    EXPECT_EQ(answered, total);
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(filtered, to_filter);
    EXPECT_EQ(heard, to_hear);
    EXPECT_EQ(rung, timers);
    EXPECT_EQ(out.count("[err]"), refused);
    int32_t once = 0;
    for (int32_t number = 0; number < total; number++) {
        once += slots[number].responses == 1;
    }
    EXPECT_EQ(once, total);
}
