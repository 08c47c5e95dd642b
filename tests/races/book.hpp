/* SPDX-License-Identifier: Apache-2.0 */
/* What a bus was asked for, one record each, and what has become of it. */
#ifndef QOR_TESTS_RACES_BOOK_HPP
#define QOR_TESTS_RACES_BOOK_HPP

#include <memory>
#include <new>

#include "stress.hpp"

/* What travels. The response is made of the request, so that a mix-up shows. */
struct Question {
    int32_t number;
    uint32_t noise;
    int32_t session;
};

struct Answer {
    int32_t number;
    uint32_t mixed;
};

inline uint32_t noise_of(int32_t number)
{
    return static_cast<uint32_t>(number) * 2654435761u;
}

struct Request {
    Count accepted{0}, handled{0};
    Count deferred{0}, completed{0}; /* by qor_deferred_complete() with result 0 */
    Count responses{0}, expired{0}, dropped{0};
    Count before{0}, after{0};             /* what its filter was shown */
    Count heard_before{0}, heard_after{0}; /* and its listener */
    std::atomic<int32_t> topic{-1};
    std::atomic<bool> synchronous{false};
};

struct Task {
    enum Kind { of_module, of_bus, bus_timer };
    std::atomic<Kind> kind{of_module};
    std::atomic<int32_t> module{-1}, session{-1};
    Count taken{0}, runs{0}, recycles{0}, cancelled{0};
};

struct Beat {
    Count taken{0}, recycles{0};
    int64_t runs = 0; /* by one thread at a time, so it needs no more */
    int inside = 0;
    std::atomic<int32_t> module{-1}, session{-1};
};

/* Records of one kind, given out one after the other. */
template <typename R> class Pages {
public:
    static constexpr int64_t none = -1;

    explicit Pages(int64_t room) : room_(room), records_(new R[static_cast<size_t>(room)]) {}

    /* The number of a record that nobody has, or none. */
    int64_t open() { return value(used_) < room_ - threads_max ? add(used_) : none; }
    bool full() const { return value(used_) >= room_ - threads_max; }
    R &operator[](int64_t number) { return records_[number]; }
    int64_t number_of(const R &record) const { return &record - records_.get(); }
    int64_t used() const { return value(used_); }

    /* Makes those that were given out new ones. */
    void clear()
    {
        for (int64_t i = 0; i < used(); i++) {
            records_[i].~R();
            new (&records_[i]) R();
        }
        used_ = 0;
    }

private:
    static constexpr int64_t threads_max = 64; /* that may open one at once */
    const int64_t room_;
    std::unique_ptr<R[]> records_;
    Count used_{0};
};

struct Book {
    /* Room for so many requests, and as many tasks. */
    explicit Book(int64_t room) : requests(room), tasks(room), beats(1000) {}

    void clear()
    {
        requests.clear();
        tasks.clear();
        beats.clear();
    }
    bool full() const { return requests.full() || tasks.full(); }

    Pages<Request> requests;
    Pages<Task> tasks;
    Pages<Beat> beats;
};

#endif /* QOR_TESTS_RACES_BOOK_HPP */
