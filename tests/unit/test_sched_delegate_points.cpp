/* SPDX-License-Identifier: Apache-2.0 */
/* At which points filters and listeners are called. */
#include "qor_sched_delegate.h"

#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "actor.hpp"
#include "case_name.hpp"
#include "sched_delegate_fixture.hpp"

namespace {

struct PointCase {
    const char *name;
    int32_t point;
    const char *others; /* the points at which another context's publication is seen */
    const char *own;    /* the same for the registered context's own publication */
};

void PrintTo(const PointCase &point, std::ostream *os)
{
    *os << point.name;
}

class SchedDelegatePoint : public SchedDelegate, public testing::WithParamInterface<PointCase> {
protected:
    /* What a sees when p, and then a itself, publishes; "before", "after" or both. */
    std::string seen(Actor &publisher)
    {
        journal.clear();
        qor_context_msg_t msg = request();
        qor_context_handler_publishx(publisher.get(), &msg);
        bus.run_all();
        std::string points = journal.text();
        for (const char *word : {"a:FILTER_", "a:LISTEN_"}) {
            for (size_t at; (at = points.find(word)) != std::string::npos;) {
                points.erase(at, strlen(word));
            }
        }
        return points;
    }
};

constexpr int32_t except_self = QOR_CONTEXT_TOPIC_ATTR_POINT_EXCEPT_SELF;

INSTANTIATE_TEST_SUITE_P(
    All, SchedDelegatePoint,
    testing::Values(PointCase{"Before", QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE, "BEFORE", "BEFORE"},
                    PointCase{"After", QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER, "AFTER", "AFTER"},
                    PointCase{"Around", QOR_CONTEXT_TOPIC_ATTR_POINT_AROUND, "BEFORE AFTER",
                              "BEFORE AFTER"},
                    PointCase{"AroundExceptSelf", QOR_CONTEXT_TOPIC_ATTR_POINT_AROUND | except_self,
                              "BEFORE AFTER", ""},
                    PointCase{"BeforeExceptSelf", QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE | except_self,
                              "BEFORE", ""},
                    PointCase{"ExceptSelfAlone", except_self, "", ""},
                    PointCase{"Nowhere", 0, "", ""}, PointCase{"UnknownBit", 8, "", ""}),
    case_name<PointCase>);

} // namespace

TEST_P(SchedDelegatePoint, DecidesWhenAFilterIsCalled)
{
    qor_context_topic_attr_t attr = at_point(GetParam().point);
    qor_context_filter(a.get(), topic, &attr);

    EXPECT_EQ(seen(p), GetParam().others);
    EXPECT_EQ(seen(a), GetParam().own);
}

TEST_P(SchedDelegatePoint, DecidesWhenAListenerIsCalled)
{
    qor_context_topic_attr_t attr = at_point(GetParam().point);
    qor_context_handler_listen(a.get(), topic, &attr);

    EXPECT_EQ(seen(p), GetParam().others);
    EXPECT_EQ(seen(a), GetParam().own);
}

TEST_P(SchedDelegatePoint, CountsWhateverTheMaskSays)
{
    qor_context_topic_attr_t attr = {0, GetParam().point, 0};
    qor_context_filter(a.get(), topic, &attr);

    EXPECT_EQ(seen(p), GetParam().others);
}
