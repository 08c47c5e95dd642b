/* SPDX-License-Identifier: Apache-2.0 */
/* The bus as an object: made, looped, and taken down in good order by its destructor. */
#ifndef QOR_BUS_HPP
#define QOR_BUS_HPP

#include <atomic>
#include <initializer_list>
#include <memory>
#include <new>
#if defined(__cpp_exceptions)
#include <stdexcept>
#endif

#include <pthread.h>

#include "module.hpp"
#include "qor_bus.h"
#include "qor_start.h"
#include "result.hpp"

/* What all units of a program share, whether they catch exceptions or not. */
namespace qor {
namespace program {
inline std::atomic<bool> has_bus{false};
}
} // namespace qor

QOR_BEGIN_NAMESPACE

/** A module of a bus: an object of a class of this interface, or a descriptor of the C interface.
 */
class module_ref {
public:
    /** An object. */
    module_ref(module_base &module) // NOLINT: a module is one
        : descriptor_(&module.descriptor()), object_(&module)
    {
    }

    /** A descriptor. */
    module_ref(qor_context_module_t &descriptor) // NOLINT: and so is a descriptor
        : descriptor_(&descriptor), object_(nullptr)
    {
    }

    /** The record for the bus. */
    qor_context_module_t *descriptor() const { return descriptor_; }

    /** The object; NULL for a descriptor of the C interface. */
    module_base *object() const { return object_; }

private:
    qor_context_module_t *descriptor_;
    module_base *object_;
};

/**
 * A bus: made of modules, looping on a thread of its own from start() on, or on the caller's in
 * run(). One at a time in a program; its modules outlive it.
 *
 * A bus may be moved, which leaves an empty one: of that only get(), the destructor and assignment
 * may be used.
 */
class bus {
public:
    /**
     * Makes a bus, which does not loop yet, and gives each module that is an object its contract.
     *
     * @param modules  referred to until the bus is closed; an object is on one bus only
     * @param topics   number of topics, at least 1
     * @return         the bus, or why there is none. What the C interface has to say is printed
     *
     * Prints a line for each topic number that has two types in the program.
     */
    static result<bus> create(std::initializer_list<module_ref> modules, int32_t topics)
    {
        bus made;
        const failure failed = made.make(modules, topics);
        if (failed != failure::none) {
            return failed;
        }
        return made;
    }

#if defined(__cpp_exceptions)
    /** The same, which throws a std::runtime_error with text_of() the error. */
    bus(std::initializer_list<module_ref> modules, int32_t topics)
    {
        const failure failed = make(modules, topics);
        if (failed != failure::none) {
            throw std::runtime_error(text_of(failed));
        }
    }
#endif

    /** Takes over a bus, and leaves an empty one. */
    bus(bus &&) = default;

    /** Ends the bus that is here, as the destructor does, and takes over another. */
    bus &operator=(bus &&other)
    {
        end();
        state_ = std::move(other.state_);
        return *this;
    }
    bus(const bus &) = delete;
    bus &operator=(const bus &) = delete;

    /** Quits, waits for the loop's end, and closes. Not on a thread of the bus's own. */
    ~bus()
    {
        end();
    }

    /** The bus for calls of the C interface, such as settings before it loops; NULL when empty. */
    qor_bus_t *get() const
    {
        return state_ ? state_->bus : nullptr;
    }

    /**
     * Loops from now on, on a thread of the bus's own. Once.
     *
     * @return  failure::none, or failure::no_thread
     */
    failure start()
    {
        if (pthread_create(&state_->thread, nullptr, loop, state_.get()) != 0) {
            detail::refuse("bus", text_of(failure::no_thread));
            return failure::no_thread;
        }
        state_->has_thread = true;
        return failure::none;
    }

    /** Loops on this thread until somebody quits. Once. 0, or -1 if it could not. */
    int32_t run()
    {
        return qor_bus_loop(state_->bus);
    }

    /** Waits until every module is up or never will be; see qor_bus_wait_up() for the result. */
    template <typename Rep, typename Period>
    int32_t wait_up(std::chrono::duration<Rep, Period> time)
    {
        const int32_t wait = detail::milliseconds_of(time);
        return wait < 0 ? -1 : qor_bus_wait_up(state_->bus, wait, nullptr);
    }

    /** Waits until nothing is queued or running; see qor_bus_drain(). */
    template <typename Rep, typename Period> int32_t drain(std::chrono::duration<Rep, Period> time)
    {
        const int32_t wait = detail::milliseconds_of(time);
        return wait < 0 ? -1 : qor_bus_drain(state_->bus, wait);
    }

    /** Asks the loop to end. Any thread, a module's too. */
    void quit()
    {
        qor_bus_quit(state_->bus);
    }

    /** Waits for the end of the loop that start() began, and gives its result; 0 without one. */
    int32_t join()
    {
        if (state_->has_thread) {
            pthread_join(state_->thread, nullptr);
            state_->has_thread = false;
        }
        return state_->looped;
    }

private:
    struct state {
        std::unique_ptr<qor_context_module_t *[]> table; /* ends with NULL */
        std::unique_ptr<module_base *[]> objects;        /* likewise */
        qor_bus_t *bus = nullptr;
        pthread_t thread = {};
        int32_t looped = 0;
        bool has_thread = false;
        bool is_the_one = false; /* program::has_bus is this one's */
    };

    bus() = default;

    static void *loop(void *arg)
    {
        state *own = static_cast<state *>(arg);
        own->looped = qor_bus_loop(own->bus);
        return nullptr;
    }

    /* What it has begun when it fails is undone by end(), which its callers come to. */
    failure make(std::initializer_list<module_ref> modules, int32_t topics)
    {
        state_.reset(new (std::nothrow) state());
        if (!state_) {
            return failure::no_memory;
        }
        const failure failed = make_of(modules, topics);
        if (failed != failure::none) {
            detail::refuse("bus", text_of(failed));
            end();
        }
        return failed;
    }

    failure make_of(std::initializer_list<module_ref> modules, int32_t topics)
    {
        if (program::has_bus.exchange(true, std::memory_order_acq_rel)) {
            return failure::live;
        }
        state_->is_the_one = true;
        topics_check();
        const failure listed = list(modules);
        if (listed != failure::none) {
            return listed;
        }
        if (modules.size() == 0 || modules.size() > 1023 || topics < 1) {
            return failure::table;
        }
        state_->bus = qor_bus_create(state_->table.get(), topics);
        return state_->bus ? promise() : failure::no_memory;
    }

    failure list(std::initializer_list<module_ref> modules)
    {
        const std::size_t room = modules.size() + 1;
        state_->table.reset(new (std::nothrow) qor_context_module_t *[room]());
        state_->objects.reset(new (std::nothrow) module_base *[room]());
        if (!state_->table || !state_->objects) {
            return failure::no_memory;
        }
        std::size_t tables = 0, objects = 0;
        for (const module_ref &module : modules) {
            state_->table[tables++] = module.descriptor();
            if (module.object()) {
                state_->objects[objects++] = module.object();
                module.object()->use(true);
            }
        }
        return failure::none;
    }

    failure promise()
    {
        for (std::size_t i = 0; state_->objects[i]; i++) {
            module_base &module = *state_->objects[i];
            if (qor_bus_contract_set(state_->bus, module.name(), &module.contract()) < 0) {
                return failure::contract;
            }
        }
        return failure::none;
    }

    void end()
    {
        if (!state_) {
            return;
        }
        if (state_->bus) {
            quit();
            join();
            qor_bus_close(state_->bus);
        }
        for (std::size_t i = 0; state_->objects && state_->objects[i]; i++) {
            state_->objects[i]->use(false);
        }
        if (state_->is_the_one) {
            program::has_bus.store(false, std::memory_order_release);
        }
        state_.reset();
    }

    std::unique_ptr<state> state_; /* stays where it is when the bus is moved, for its thread */
};

QOR_END_NAMESPACE

#endif /* QOR_BUS_HPP */
