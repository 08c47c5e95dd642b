/* SPDX-License-Identifier: Apache-2.0 */
#include "rbapi_kv.h"

#include <gtest/gtest.h>

#include "fault.h"
#include "leak.hpp"

namespace {

/* A map of numbers that need no release. */
class Map {
public:
    Map()
    {
        EXPECT_EQ(rbapi_kv_init(&kv, [](void *) {}), 0);
    }
    ~Map() { rbapi_kv_destroy(&kv); }

    rbtree_kv_root kv;
};

} // namespace

TEST(RbApiFaults, InsertWithoutMemoryForTheNodeFails)
{
    rbtree_root root;
    ASSERT_EQ(rbapi_init(&root, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    int key;
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(rbapi_insert(&key, nullptr, &root), -1);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(root.count, 0);
    EXPECT_EQ(rbapi_insert(&key, nullptr, &root), 0);
    rbapi_destroy(&root);
}

TEST(RbApiFaults, KvInsertWithoutMemoryForTheKeyFails)
{
    Map map;
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(rbapi_kv_insert("key", nullptr, &map.kv), -1);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(fault_calls(FAULT_ALLOC), 1);
    EXPECT_EQ(rbapi_kv_isempty(&map.kv), 1);
}

TEST(RbApiFaults, KvInsertWithoutMemoryForTheNodeFreesTheKeyCopy)
{
    Map map;
    fault_arm(FAULT_ALLOC, 1);

    EXPECT_EQ(rbapi_kv_insert("key", nullptr, &map.kv), -1); /* the leak checker watches */

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(rbapi_kv_isempty(&map.kv), 1);
    EXPECT_EQ(rbapi_kv_insert("key", nullptr, &map.kv), 0);
}

TEST(RbApiFaults, KvInsertOfAPresentKeyKeepsNodeAndKeyCopy)
{
    Map map;
    ASSERT_EQ(rbapi_kv_insert("key", nullptr, &map.kv), 0);
    fault_arm(FAULT_ALLOC, -1);
    {
        PrescribedLeak leak;
        EXPECT_EQ(rbapi_kv_insert("key", nullptr, &map.kv), -1);
    }

    EXPECT_EQ(fault_calls(FAULT_ALLOC), 2);
    EXPECT_EQ(fault_live(), 2);
    rbapi_kv_clear(&map.kv); /* the entry alone */
    EXPECT_EQ(fault_live(), 0);
}
