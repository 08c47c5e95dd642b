/* SPDX-License-Identifier: Apache-2.0 */
/* Book-keeping of posted tasks: each that was taken must have been released, and only once. */
#ifndef QOR_TESTS_LEDGER_HPP
#define QOR_TESTS_LEDGER_HPP

#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>

#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_task.h"

class Ledger {
public:
    /* How a record is posted. A timer of the bus is recycled when it is due and after its run. */
    enum Kind { of_module, of_bus, bus_timer };

    Ledger() = default;
    Ledger(const Ledger &) = delete;
    Ledger &operator=(const Ledger &) = delete;

    /* Posts a record to a module's own queue; the body is called when it runs. */
    int32_t post(qor_context_t *module, int32_t session, int32_t delay, int32_t async,
                 std::function<void()> body)
    {
        Record &record = open(of_module, std::move(body));
        qor_context_task_t task = task_of(record, session, delay);
        task.async = async;
        return enter(record, qor_context_handler_post(module, &task));
    }

    int32_t run(qor_bus_t *bus, std::function<void()> body)
    {
        Record &record = open(of_bus, std::move(body));
        return enter(record, qor_bus_run(bus, ran, &record, recycled));
    }

    int32_t timer(qor_bus_t *bus, int32_t session, int32_t delay, std::function<void()> body)
    {
        Record &record = open(bus_timer, std::move(body));
        qor_context_task_t task = task_of(record, session, delay);
        return enter(record, qor_bus_timer_post(bus, &task));
    }

    /* What does not balance, one line for each record; empty when everything does. To be called
     * when no thread is left that posts, runs or discards. */
    std::string errors() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::ostringstream text;
        int number = 0;
        for (const Record &record : records_) {
            if (!balances(record)) {
                text << "record " << number << ": kind " << record.kind << ", taken "
                     << record.taken << ", ran " << record.runs << ", recycled " << record.recycles
                     << "\n";
            }
            number++;
        }
        return text.str();
    }

    /* Sums over all records so far. */
    struct Sums {
        long posted, refused, ran, discarded;
    };

    Sums sums() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Sums all = {};
        for (const Record &record : records_) {
            all.posted++;
            all.refused += !record.taken;
            all.ran += record.runs;
            all.discarded += record.taken && record.runs == 0;
        }
        return all;
    }

private:
    struct Record {
        Record(Kind k, std::function<void()> b) : kind(k), body(std::move(b)) {}
        const Kind kind;
        const std::function<void()> body;
        std::atomic<bool> taken{false};
        std::atomic<int> runs{0}, recycles{0};
    };

    static bool balances(const Record &record)
    {
        if (!record.taken) {
            return record.runs == 0 && record.recycles == 0;
        }
        if (record.kind == bus_timer) {
            return record.runs == 1
                       ? record.recycles == 2
                       : record.runs == 0 && (record.recycles == 1 || record.recycles == 2);
        }
        return record.runs <= 1 && record.recycles == 1;
    }

    Record &open(Kind kind, std::function<void()> body)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        records_.emplace_back(kind, std::move(body));
        return records_.back();
    }

    static int32_t enter(Record &record, int32_t posted)
    {
        record.taken = posted >= 0;
        return posted;
    }

    static qor_context_task_t task_of(Record &record, int32_t session, int32_t delay)
    {
        qor_context_task_t task = {};
        qor_context_task_init(&task, nullptr, nullptr, session, ran, &record);
        task.delay = delay;
        task.recycle = recycled;
        return task;
    }

    static void *ran(void *arg)
    {
        Record &record = *static_cast<Record *>(arg);
        record.runs++;
        if (record.body) {
            record.body();
        }
        return nullptr;
    }

    static void recycled(void *arg) { static_cast<Record *>(arg)->recycles++; }

    mutable std::mutex mutex_;
    std::deque<Record> records_;
};

#endif /* QOR_TESTS_LEDGER_HPP */
