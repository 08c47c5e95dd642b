/* SPDX-License-Identifier: Apache-2.0 */
/* Requests from module to module, with all that observes them. */
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "running_bus.hpp"

namespace {

constexpr int32_t topic = 5;

std::string text_of(const void *buf, int32_t size)
{
    return buf ? std::string(static_cast<const char *>(buf), static_cast<size_t>(size)) : "";
}

const char *type_name(int32_t type)
{
    static const char *const names[] = {"request", "response",      "before",
                                        "after",   "filter_before", "filter_after"};
    return names[type];
}

qor_context_topic_attr_t at(int32_t point)
{
    return {QOR_CONTEXT_TOPIC_ATTR_POINT, point, 0};
}

/* A client, a server of the topic, and an observer. Each writes down what reaches it as
 * "server:request"; the server answers with "pong". */
class Requests : public testing::Test {
protected:
    Requests()
    {
        server.reg = [](qor_context_t *c) { qor_context_subscribe(c, topic, nullptr); };
        server.handle = [this](qor_context_t *c, qor_context_msg_t *msg) {
            note(c, msg);
            if (msg->type == QOR_CONTEXT_MSG_REQUEST && msg->response.size >= 4) {
                std::memcpy(msg->response.buf, "pong", 4);
            }
            return msg->type == QOR_CONTEXT_MSG_REQUEST ? answer : 0;
        };
        client.handle = observer.handle = [this](qor_context_t *c, qor_context_msg_t *msg) {
            note(c, msg);
            return -99; /* nobody looks at it */
        };
    }

    void note(qor_context_t *context, const qor_context_msg_t *msg)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (msg->type == QOR_CONTEXT_MSG_RESPONSE) {
            session = msg->session;
            ret = msg->ret;
            request = text_of(msg->request.buf, msg->request.size);
            response = text_of(msg->response.buf, msg->response.size);
        }
        journal.add(std::string(context->module->name) + ":" + type_name(msg->type));
    }

    void be_up()
    {
        bus.emplace(std::initializer_list<Module *>{&server, &client, &observer});
        ASSERT_TRUE(bus->up());
    }

    /* Waits for as many notes, then for what would come on top. */
    std::string noted(size_t count)
    {
        EXPECT_TRUE(journal.await(count)) << journal.text();
        return journal.text();
    }

    Output out;
    Journal journal;
    Door door; /* outlives the bus, whose workers may stand at it */
    std::mutex mutex;
    int32_t session = -1; /* of the last response, like the following */
    int32_t ret = -1;
    std::string request;
    std::string response;
    int32_t answer = 0;
    Module server{"server"}, client{"client"}, observer{"observer"};
    std::optional<RunningBus> bus;
};

char ping[] = "ping!";

} // namespace

TEST_F(Requests, TheResponseCarriesSessionResultAndPayload)
{
    be_up();
    answer = 17;

    const int32_t drawn = qor_context_req_ret(client.context(), topic, ping, 5, 4);

    EXPECT_GT(drawn, 0);
    EXPECT_EQ(noted(2), "server:request client:response");
    EXPECT_EQ(session, drawn);
    EXPECT_EQ(ret, 17);
    EXPECT_EQ(request, "ping!");
    EXPECT_EQ(response, "pong");
}

TEST_F(Requests, ARequestWithoutResponsePartIsAnsweredWithTheResultAlone)
{
    be_up();
    answer = 3;

    EXPECT_GT(qor_context_req(client.context(), topic, ping, 5), 0);

    noted(2);
    EXPECT_EQ(ret, 3);
    EXPECT_EQ(request, "ping!");
    EXPECT_EQ(response, "");
}

TEST_F(Requests, TheCallersSessionIsKept)
{
    be_up();

    EXPECT_EQ(qor_context_req_ret_s(client.context(), 123456, topic, ping, 5, 4), 123456);

    noted(2);
    EXPECT_EQ(session, 123456);
}

TEST_F(Requests, TheCallersBufferMayBeChangedAtOnce)
{
    be_up();
    char buffer[] = "ping!";

    qor_context_req_ret(client.context(), topic, buffer, 5, 4);
    std::memset(buffer, 'x', 5);

    noted(2);
    EXPECT_EQ(request, "ping!");
}

TEST_F(Requests, AFailedHandlerStillGivesAResponse)
{
    be_up();
    answer = -5;

    const int32_t drawn = qor_context_req(client.context(), topic, ping, 5);

    EXPECT_EQ(noted(2), "server:request client:response");
    EXPECT_EQ(ret, -5);
    EXPECT_EQ(out.count("handle message failed, ret = -5 source = client, topic = 5, session = " +
                        std::to_string(drawn) + "\n"),
              1);
}

TEST_F(Requests, WithoutSubscriberNothingComesBack)
{
    be_up();

    EXPECT_EQ(qor_context_req(client.context(), 1, ping, 5), -1);

    EXPECT_EQ(out.count("[qor_sched_delegate][err][qor_sched_delegate_publish]:no one subscribe, "
                        "source:client, topic:1, session="),
              1);
    EXPECT_EQ(journal.text(), "");
}

TEST_F(Requests, ASynchronousRequestIsHandledOnTheCallersThread)
{
    std::thread::id handled_by;
    server.handle = [&](qor_context_t *, qor_context_msg_t *msg) {
        handled_by = std::this_thread::get_id();
        std::memcpy(msg->response.buf, "pong", 4);
        return 8;
    };
    be_up();
    char buffer[5] = "";

    EXPECT_EQ(qor_context_x_req_ret(client.context(), topic, ping, 5, buffer, 4), 8);

    EXPECT_STREQ(buffer, "pong");
    EXPECT_EQ(handled_by, std::this_thread::get_id());
    EXPECT_EQ(journal.text(), "");
}

TEST_F(Requests, ASynchronousRequestWithoutSubscriberFails)
{
    be_up();

    EXPECT_EQ(qor_context_x_req(client.context(), 1, ping, 5), -1);

    EXPECT_EQ(out.count("handle message failed, ret = -1 source = client, topic = 1, session = "),
              1);
}

TEST_F(Requests, AModuleMayServeItself)
{
    be_up();

    EXPECT_GT(qor_context_req_ret(server.context(), topic, ping, 5, 4), 0);

    EXPECT_EQ(noted(2), "server:request server:response");
    EXPECT_EQ(response, "pong");
}

/* ---- two subscribers ---- */

TEST_F(Requests, TheNewestSubscriberAloneReceivesThem)
{
    be_up();
    ASSERT_EQ(qor_context_subscribe(observer.context(), topic, nullptr), 0);

    qor_context_req(client.context(), topic, ping, 5);

    EXPECT_EQ(noted(2), "observer:request client:response");
}

TEST_F(Requests, TheOlderSubscriberReceivesThemOnceTheNewerHasLeft)
{
    be_up();
    ASSERT_EQ(qor_context_subscribe(observer.context(), topic, nullptr), 0);
    ASSERT_EQ(qor_context_unsubscribe(observer.context(), topic), 0);

    qor_context_req(client.context(), topic, ping, 5);

    EXPECT_EQ(noted(2), "server:request client:response");
}

TEST_F(Requests, AHandlerMayRemoveItsOwnSubscription)
{
    server.handle = [this](qor_context_t *c, qor_context_msg_t *msg) {
        note(c, msg);
        return qor_context_unsubscribe(c, topic);
    };
    be_up();

    qor_context_req(client.context(), topic, ping, 5);

    EXPECT_EQ(noted(2), "server:request client:response");
    EXPECT_EQ(qor_context_req(client.context(), topic, ping, 5), -1);
}

/* ---- filters ---- */

TEST_F(Requests, AFilterSeesThemBeforeAndAfter)
{
    be_up();
    ASSERT_EQ(qor_context_filter(observer.context(), topic, nullptr), 0);

    qor_context_req(client.context(), topic, ping, 5);

    EXPECT_EQ(noted(4),
              "observer:filter_before server:request observer:filter_after client:response");
}

TEST_F(Requests, AFilterSeesThePointsThatItAskedFor)
{
    be_up();
    qor_context_topic_attr_t before = at(QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE);
    qor_context_topic_attr_t after = at(QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER);
    ASSERT_EQ(qor_context_filter(observer.context(), topic, &before), 0);
    ASSERT_EQ(qor_context_filter(server.context(), topic, &after), 0);

    qor_context_req(client.context(), topic, ping, 5);

    EXPECT_EQ(noted(4),
              "observer:filter_before server:request server:filter_after client:response");
}

TEST_F(Requests, AFilterMayChangeThem)
{
    observer.handle = [](qor_context_t *, qor_context_msg_t *msg) {
        if (msg->type == QOR_CONTEXT_MSG_FILTER_BEFORE) {
            std::memcpy(msg->request.buf, "PING?", 5);
        } else {
            std::memcpy(msg->response.buf, "PONG", 4);
            msg->ret = 9;
        }
        return -1; /* of no consequence */
    };
    be_up();
    ASSERT_EQ(qor_context_filter(observer.context(), topic, nullptr), 0);
    char buffer[] = "ping!";

    qor_context_req_ret(client.context(), topic, buffer, 5, 4);

    EXPECT_EQ(noted(2), "server:request client:response");
    EXPECT_EQ(request, "PING?");
    EXPECT_EQ(response, "PONG");
    EXPECT_EQ(ret, 9);
}

TEST_F(Requests, FiltersAreCalledEvenWithoutSubscriber)
{
    be_up();
    ASSERT_EQ(qor_context_filter(observer.context(), 1, nullptr), 0);

    EXPECT_EQ(qor_context_req(client.context(), 1, ping, 5), -1);

    EXPECT_EQ(journal.text(), "observer:filter_before");
}

TEST_F(Requests, AFilterWithoutItsOwnRequestsSeesOnlyThoseOfOthers)
{
    be_up();
    qor_context_topic_attr_t others =
        at(QOR_CONTEXT_TOPIC_ATTR_POINT_AROUND | QOR_CONTEXT_TOPIC_ATTR_POINT_EXCEPT_SELF);
    ASSERT_EQ(qor_context_filter(observer.context(), topic, &others), 0);

    qor_context_req(observer.context(), topic, ping, 5);
    EXPECT_EQ(noted(2), "server:request observer:response");
    journal.clear();

    qor_context_req(client.context(), topic, ping, 5);
    EXPECT_EQ(noted(4),
              "observer:filter_before server:request observer:filter_after client:response");
}

/* ---- listeners ---- */

TEST_F(Requests, AListenerHearsThemBeforeAndAfter)
{
    be_up();
    ASSERT_EQ(qor_context_listen(observer.context(), topic, nullptr), 0);

    qor_context_req(client.context(), topic, ping, 5);

    const std::string text = noted(4); /* listeners run beside the request */
    for (const char *part :
         {"observer:before", "observer:after", "server:request", "client:response"}) {
        EXPECT_NE(text.find(part), std::string::npos) << text;
    }
}

TEST_F(Requests, AListenerHearsTheResultAndTheResponseAfterwards)
{
    std::string heard;
    int32_t result = 0;
    observer.handle = [&](qor_context_t *, qor_context_msg_t *msg) {
        heard = text_of(msg->response.buf, msg->response.size);
        result = msg->ret;
        journal.add("heard");
        return 0;
    };
    be_up();
    answer = 4;
    qor_context_topic_attr_t after = at(QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER);
    ASSERT_EQ(qor_context_listen(observer.context(), topic, &after), 0);

    qor_context_req_ret(client.context(), topic, ping, 5, 4);

    noted(3);
    EXPECT_EQ(heard, "pong");
    EXPECT_EQ(result, 4);
}

TEST_F(Requests, AListenerThatIsHeldUpDoesNotDelayTheResponse)
{
    observer.handle = [this](qor_context_t *, qor_context_msg_t *) { return door.pass() ? 0 : -1; };
    be_up();
    ASSERT_EQ(qor_context_listen(observer.context(), topic, nullptr), 0);

    qor_context_req(client.context(), topic, ping, 5);

    EXPECT_EQ(noted(2), "server:request client:response");
    door.open();
}

TEST_F(Requests, AListenersChangesStayItsOwn)
{
    observer.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
        std::memset(msg->request.buf, 'x', 5);
        journal.add("heard");
        return 0;
    };
    be_up();
    ASSERT_EQ(qor_context_listen(observer.context(), topic, nullptr), 0);

    qor_context_req(client.context(), topic, ping, 5);

    noted(4);
    EXPECT_EQ(request, "ping!");
}

TEST_F(Requests, AListenerWithoutItsOwnRequestsHearsOnlyThoseOfOthers)
{
    be_up();
    qor_context_topic_attr_t others =
        at(QOR_CONTEXT_TOPIC_ATTR_POINT_AROUND | QOR_CONTEXT_TOPIC_ATTR_POINT_EXCEPT_SELF);
    ASSERT_EQ(qor_context_listen(observer.context(), topic, &others), 0);

    qor_context_req(observer.context(), topic, ping, 5);
    noted(2);
    qor_context_req(client.context(), topic, ping, 5);

    const std::string text = noted(6);
    size_t heard = 0;
    for (size_t at = 0; (at = text.find("observer:", at)) != std::string::npos; at++) {
        heard += text.compare(at, 15, "observer:before") == 0 ||
                 text.compare(at, 14, "observer:after") == 0;
    }
    EXPECT_EQ(heard, 2u) << text;
}

/* ---- system requests ---- */

TEST_F(Requests, ASystemRequestIsMadeOnTheWrapperAndGivesTheSession)
{
    be_up();

    EXPECT_GT(qor_context_sys_req(&client.core()->base, QOR_SYS_MNG_CONTEXT_REGISTER, nullptr, 0),
              0);
    EXPECT_GT(qor_context_sysx_req(&client.core()->base, QOR_SYS_MNG_CONTEXT_REGISTER, nullptr, 0),
              0);

    EXPECT_EQ(qor_context_sys_req(client.context(), QOR_SYS_MNG_CONTEXT_REGISTER, nullptr, 0), -1);
    EXPECT_EQ(out.count("!(handler->syscall) == true."), 1);
}
