/* SPDX-License-Identifier: Apache-2.0 */
/* Time per insert, find and erase of the tree and the maps, next to containers of other libraries.
 *
 * Every container gets the same keys in the same random orders: one for inserting, another for
 * finding, a third for erasing. Intrusive trees link nodes of one array; the maps allocate. Integer
 * keys are random; string keys look like "sensor/3fa9c2d1". */
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/intrusive/rbtree.hpp>
#include <glib.h>

#include "rbapi_kv.h"

namespace {

void *pointer(size_t number)
{
    return reinterpret_cast<void *>(number);
}

struct Keys {
    explicit Keys(size_t count)
    {
        std::mt19937_64 random(1);
        std::map<uint32_t, bool> seen;
        while (inserted.size() < count) {
            const uint32_t key = static_cast<uint32_t>(random());
            if (seen.emplace(key, true).second) {
                inserted.push_back(key);
            }
        }
        found = erased = inserted;
        std::shuffle(found.begin(), found.end(), random);
        std::shuffle(erased.begin(), erased.end(), random);
    }

    static const Keys &of(size_t count)
    {
        static std::map<size_t, Keys> all;
        return all.try_emplace(count, count).first->second;
    }

    std::vector<uint32_t> inserted, found, erased;
};

struct Texts {
    explicit Texts(size_t count)
    {
        const Keys &keys = Keys::of(count);
        inserted = spell(keys.inserted);
        found = spell(keys.found);
        erased = spell(keys.erased);
    }

    static std::vector<std::string> spell(const std::vector<uint32_t> &keys)
    {
        std::vector<std::string> texts;
        for (uint32_t key : keys) {
            char text[32];
            snprintf(text, sizeof(text), "sensor/%08x", key);
            texts.push_back(text);
        }
        return texts;
    }

    static const Texts &of(size_t count)
    {
        static std::map<size_t, Texts> all;
        return all.try_emplace(count, count).first->second;
    }

    std::vector<std::string> inserted, found, erased;
};

/* Integer keys. Each container has insert(), find() and erase(); find() gives the value. */

class QorTree {
public:
    using Source = Keys;
    explicit QorTree(size_t count) : nodes_(count) {}

    void insert(uint32_t key)
    {
        Node *node = &nodes_[used_++];
        node->key = key;
        rb_node *parent = nullptr;
        bool left = false;
        for (rb_node *at = root_.rb_node; at; at = left ? at->rb_left : at->rb_right) {
            parent = at;
            left = key < of(at)->key;
        }
        rb_node **link = !parent ? &root_.rb_node : left ? &parent->rb_left : &parent->rb_right;
        node->link = {reinterpret_cast<size_t>(parent), nullptr, nullptr};
        *link = &node->link;
        rb_insert_color(&node->link, &root_);
    }

    const void *find(uint32_t key) const
    {
        rb_node *node = root_.rb_node;
        while (node && of(node)->key != key) {
            node = key < of(node)->key ? node->rb_left : node->rb_right;
        }
        return node;
    }

    void erase(uint32_t key)
    {
        rb_erase(static_cast<rb_node *>(const_cast<void *>(find(key))), &root_);
    }

private:
    struct Node {
        rb_node link;
        uint32_t key;
    };
    static Node *of(rb_node *link) { return reinterpret_cast<Node *>(link); }

    std::vector<Node> nodes_;
    size_t used_ = 0;
    rb_root root_ = {nullptr};
};

/* compact: the colour in the parent pointer, as in our tree. */
template <bool compact> class BoostTree {
public:
    using Source = Keys;
    explicit BoostTree(size_t count) : nodes_(count) {}
    ~BoostTree() { tree_.clear(); }

    void insert(uint32_t key)
    {
        Node *node = &nodes_[used_++];
        node->key = key;
        tree_.insert_equal(*node);
    }

    const void *find(uint32_t key) const
    {
        const auto at = tree_.find(key);
        return at == tree_.end() ? nullptr : &*at;
    }

    void erase(uint32_t key) { tree_.erase(tree_.find(key)); }

private:
    using Hook =
        boost::intrusive::set_base_hook<boost::intrusive::optimize_size<compact>,
                                        boost::intrusive::link_mode<boost::intrusive::normal_link>>;
    struct Node : Hook {
        uint32_t key;
    };
    struct KeyOf {
        using type = uint32_t;
        const uint32_t &operator()(const Node &node) const { return node.key; }
    };

    std::vector<Node> nodes_;
    size_t used_ = 0;
    boost::intrusive::rbtree<Node, boost::intrusive::base_hook<Hook>,
                             boost::intrusive::key_of_value<KeyOf>,
                             boost::intrusive::constant_time_size<false>>
        tree_;
};

class QorMap {
public:
    using Source = Keys;
    explicit QorMap(size_t) { rbapi_init(&root_, nullptr, nullptr, nullptr, nullptr, nullptr); }
    ~QorMap() { rbapi_destroy(&root_); }

    void insert(uint32_t key) { rbapi_insert(pointer(key), pointer(1), &root_); }
    const void *find(uint32_t key)
    {
        void *val = nullptr;
        rbapi_find(pointer(key), &val, &root_);
        return val;
    }
    void erase(uint32_t key) { rbapi_erase(pointer(key), &root_); }

private:
    rbtree_root root_;
};

template <typename Map> class StdMap {
public:
    using Source = Keys;
    explicit StdMap(size_t) {}

    void insert(uint32_t key) { map_.emplace(key, pointer(1)); }
    const void *find(uint32_t key) const
    {
        const auto at = map_.find(key);
        return at == map_.end() ? nullptr : at->second;
    }
    void erase(uint32_t key) { map_.erase(key); }

private:
    Map map_;
};

class GlibTree {
public:
    using Source = Keys;
    explicit GlibTree(size_t) {}
    ~GlibTree() { g_tree_destroy(tree_); }

    void insert(uint32_t key) { g_tree_insert(tree_, pointer(key), pointer(1)); }
    const void *find(uint32_t key) const { return g_tree_lookup(tree_, pointer(key)); }
    void erase(uint32_t key) { g_tree_remove(tree_, pointer(key)); }

private:
    static gint compare(gconstpointer first, gconstpointer second)
    {
        const size_t a = reinterpret_cast<size_t>(first), b = reinterpret_cast<size_t>(second);
        return a < b ? -1 : a > b;
    }

    GTree *tree_ = g_tree_new(compare);
};

/* String keys, copied by every map. */

class QorStringMap {
public:
    using Source = Texts;
    explicit QorStringMap(size_t)
    {
        rbapi_kv_init(&map_, [](void *) {});
    }
    ~QorStringMap() { rbapi_kv_destroy(&map_); }

    void insert(const std::string &key) { rbapi_kv_insert(key.c_str(), pointer(1), &map_); }
    const void *find(const std::string &key)
    {
        void *val = nullptr;
        rbapi_kv_find(key.c_str(), &val, &map_);
        return val;
    }
    void erase(const std::string &key) { rbapi_kv_erase(key.c_str(), &map_); }

private:
    rbtree_kv_root map_;
};

template <typename Map> class StdStringMap {
public:
    using Source = Texts;
    explicit StdStringMap(size_t) {}

    void insert(const std::string &key) { map_.emplace(key, pointer(1)); }
    const void *find(const std::string &key) const
    {
        const auto at = map_.find(key);
        return at == map_.end() ? nullptr : at->second;
    }
    void erase(const std::string &key) { map_.erase(key); }

private:
    Map map_;
};

class GlibStringTree {
public:
    using Source = Texts;
    explicit GlibStringTree(size_t) {}
    ~GlibStringTree() { g_tree_destroy(tree_); }

    void insert(const std::string &key) { g_tree_insert(tree_, g_strdup(key.c_str()), pointer(1)); }
    const void *find(const std::string &key) const { return g_tree_lookup(tree_, key.c_str()); }
    void erase(const std::string &key) { g_tree_remove(tree_, key.c_str()); }

private:
    static gint compare(gconstpointer first, gconstpointer second, gpointer)
    {
        return strcmp(static_cast<const char *>(first), static_cast<const char *>(second));
    }

    GTree *tree_ = g_tree_new_full(compare, nullptr, g_free, nullptr);
};

void report(benchmark::State &state)
{
    state.counters["per key"] = benchmark::Counter(static_cast<double>(state.range(0)),
                                                   benchmark::Counter::kIsIterationInvariantRate |
                                                       benchmark::Counter::kInvert);
}

template <typename Container> void insert(benchmark::State &state)
{
    const size_t count = static_cast<size_t>(state.range(0));
    const auto &source = Container::Source::of(count);
    for (auto _ : state) {
        state.PauseTiming();
        {
            Container container(count);
            state.ResumeTiming();
            for (const auto &key : source.inserted) {
                container.insert(key);
            }
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
    report(state);
}

template <typename Container> void find(benchmark::State &state)
{
    const size_t count = static_cast<size_t>(state.range(0));
    const auto &source = Container::Source::of(count);
    Container container(count);
    for (const auto &key : source.inserted) {
        container.insert(key);
    }
    for (auto _ : state) {
        for (const auto &key : source.found) {
            if (!container.find(key)) {
                state.SkipWithError("a key is missing");
            }
        }
    }
    report(state);
}

template <typename Container> void erase(benchmark::State &state)
{
    const size_t count = static_cast<size_t>(state.range(0));
    const auto &source = Container::Source::of(count);
    for (auto _ : state) {
        state.PauseTiming();
        {
            Container container(count);
            for (const auto &key : source.inserted) {
                container.insert(key);
            }
            state.ResumeTiming();
            for (const auto &key : source.erased) {
                container.erase(key);
            }
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
    report(state);
}

} // namespace

#define QOR_BENCHMARK(operation, name, ...)    \
    BENCHMARK_TEMPLATE(operation, __VA_ARGS__) \
        ->Name(#operation "/" name)            \
        ->Arg(100000)                          \
        ->Arg(1000000)                         \
        ->Unit(benchmark::kMillisecond)
#define QOR_BENCHMARKS(name, ...)             \
    QOR_BENCHMARK(insert, name, __VA_ARGS__); \
    QOR_BENCHMARK(find, name, __VA_ARGS__);   \
    QOR_BENCHMARK(erase, name, __VA_ARGS__)

QOR_BENCHMARKS("int/rbtree", QorTree);
QOR_BENCHMARKS("int/boost_rbtree", BoostTree<false>);
QOR_BENCHMARKS("int/boost_rbtree_compact", BoostTree<true>);
QOR_BENCHMARKS("int/rbapi", QorMap);
QOR_BENCHMARKS("int/std_map", StdMap<std::map<uint32_t, void *>>);
QOR_BENCHMARKS("int/std_unordered_map", StdMap<std::unordered_map<uint32_t, void *>>);
QOR_BENCHMARKS("int/gtree", GlibTree);
QOR_BENCHMARKS("string/rbapi_kv", QorStringMap);
QOR_BENCHMARKS("string/gtree", GlibStringTree);
QOR_BENCHMARKS("string/std_map", StdStringMap<std::map<std::string, void *>>);
QOR_BENCHMARKS("string/std_unordered_map", StdStringMap<std::unordered_map<std::string, void *>>);
