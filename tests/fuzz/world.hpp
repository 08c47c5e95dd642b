/* SPDX-License-Identifier: Apache-2.0 */
/* What the library finds around it while a fuzzer runs an input: memory with a ledger, which can
 * run out, a clock that stands still unless it is moved, waits in which others act, and a place for
 * the lines it prints. One thread does everything, so each run of an input is the same. */
#ifndef QOR_TESTS_FUZZ_WORLD_HPP
#define QOR_TESTS_FUZZ_WORLD_HPP

#include <stddef.h>
#include <stdint.h>

#include <string>

/* Takes its choices from the bytes of an input; zeroes when they are used up. */
class Bytes {
public:
    Bytes(const uint8_t *data, size_t size) : at_(data), end_(data + size) {}

    bool left() const { return at_ != end_; }
    uint8_t byte() { return left() ? *at_++ : 0; }
    uint32_t below(uint32_t bound) { return byte() % bound; }
    int32_t word()
    {
        uint32_t whole = 0;
        for (int n = 0; n < 4; n++) {
            whole = whole << 8 | byte();
        }
        return static_cast<int32_t>(whole);
    }

private:
    const uint8_t *at_;
    const uint8_t *end_;
};

/* Ends the run with a line unless the condition holds: the library and the model differ. */
#define EXPECT(cond)                                  \
    do {                                              \
        if (!(cond)) {                                \
            world_differs(__FILE__, __LINE__, #cond); \
        }                                             \
    } while (0)

[[noreturn]] void world_differs(const char *file, int line, const char *what);

/* A wait on a condition, for those who act during it. */
struct WorldWait {
    const void *cond;
    int64_t until;    /* ms; INT64_MAX: without limit */
    bool timed_out;   /* set by those who act: the time is over, and it has become that late */
    bool woken;       /* the condition was signalled since the wait began */
    WorldWait *outer; /* the wait in which this one began; NULL: none */
};

struct World {
    World();  /* nothing is allocated, the clock stands at an hour */
    ~World(); /* nothing must be allocated any more */

    int64_t now = 3600 * 1000; /* ms, monotonic */
    int memory_fails_in = -1;  /* so many allocations succeed, then one fails; negative: all do */
    int locks_fail_in = -1;    /* the same for mutexes and conditions that are made */
    size_t memory_most = 1 << 20; /* larger blocks cannot be had */
    int allocations = 0;          /* since the beginning, those that failed too */
    std::string printed;          /* by the library, without line numbers */
    /* What others do while a thread waits; the lock is free. */
    void (*while_waiting)(void *arg, WorldWait &wait) = nullptr;
    void *arg = nullptr;

    size_t live() const;                /* blocks allocated and not freed */
    size_t size_of(const void *) const; /* the block's bytes; SIZE_MAX: it is not live */
    size_t drop_all();                  /* frees all blocks, and tells how many they were */

    /* Expects the library to have printed this since the last call. */
    void expect_printed(const std::string &lines);
    /* "[qor_que][err][qor_que_lock]:!(_this) == true.\n" */
    static std::string err(const char *tag, const char *function, const char *text);
};

/* The world there is now, or NULL. */
extern thread_local World *world;

#endif /* QOR_TESTS_FUZZ_WORLD_HPP */
