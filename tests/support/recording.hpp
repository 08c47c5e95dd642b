/* SPDX-License-Identifier: Apache-2.0 */
/* Recordings in the memory of a test, and what is in them: a reader of the format in
 * docs/recording.md that shares nothing with the library. */
#ifndef QOR_TESTS_RECORDING_HPP
#define QOR_TESTS_RECORDING_HPP

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "qor_trace.h"

/* Event types and kinds, as the format numbers them. */
enum : uint32_t {
    event_time = 1,
    event_from,
    event_request,
    event_start,
    event_end,
    event_drop,
    event_post,
    event_due,
    event_cancel,
    event_bypass,
    event_register,
    event_lifecycle,
    event_wait,
    event_waited,
    event_quit,
    event_mark,
    event_name,
    event_stall,
    event_line,
    event_deferred,
    event_completed,
    event_lost,
    event_missed,
};

struct RecordedEvent {
    uint32_t lane;
    uint64_t time;
    uint32_t type, detail, who;
    int32_t session, arg;
    std::string text;
};

/* Reads a recording. */
class Recording {
public:
    explicit Recording(const void *memory) : bytes_(static_cast<const uint8_t *>(memory)) {}

    uint32_t word(size_t offset) const
    {
        return __atomic_load_n(reinterpret_cast<const uint32_t *>(bytes_ + offset),
                               __ATOMIC_ACQUIRE);
    }
    uint64_t wide(size_t offset) const
    {
        uint64_t value;
        memcpy(&value, bytes_ + offset, sizeof(value));
        return value;
    }
    std::string text(size_t offset, size_t size) const
    {
        const char *start = reinterpret_cast<const char *>(bytes_ + offset);
        return std::string(start, strnlen(start, size));
    }

    std::string magic() const { return text(0, 8); }
    uint32_t lanes() const { return word(24); }
    uint32_t capacity() const { return word(28); }
    uint32_t names() const { return word(36); }
    uint32_t state() const { return word(44); }
    uint32_t lanes_lacking() const { return word(84); }
    uint32_t lanes_taken() const { return word(88); }

    size_t lane(uint32_t index) const { return 128 + 128 * static_cast<size_t>(index); }
    size_t naming(uint32_t who) const { return lane(lanes()) + 32 * static_cast<size_t>(who); }
    uint64_t written(uint32_t index) const
    {
        return word(lane(index)) | static_cast<uint64_t>(word(lane(index) + 4)) << 32;
    }
    uint32_t role(uint32_t index) const { return word(lane(index) + 32); }
    uint32_t depth(uint32_t index) const { return word(lane(index) + 36); }

    /* A context's name, or its number where it has none. */
    std::string name(uint32_t who) const
    {
        const std::string given = who > 0 && who < names() ? text(naming(who), 20) : "";
        return who == 0 ? "-" : given.empty() ? std::to_string(who) : given;
    }

    /* What a lane has kept, oldest first; without the oldest of a full lane, which its thread may
     * be writing over. */
    std::vector<RecordedEvent> events(uint32_t index) const
    {
        const uint64_t kept =
            std::min<uint64_t>(written(index), capacity() - (written(index) >= capacity()));
        std::vector<RecordedEvent> found;
        uint64_t high = word(lane(index) + 8);
        for (uint64_t i = 0; i < kept; i++) {
            const size_t at = slot(index, written(index) - 1 - i);
            RecordedEvent event = event_at(index, at);
            if (event.type == event_time) {
                high = static_cast<uint32_t>(event.arg);
                event.time = high << 32 | word(at);
                high = static_cast<uint32_t>(event.session);
            } else {
                event.time = high << 32 | word(at);
            }
            if (event.type == event_name) {
                char part[12] = {};
                const uint32_t words[] = {word(at + 4) >> 8, word(at + 8), word(at + 12)};
                memcpy(part, &words[0], 3);
                memcpy(part + 3, &words[1], 8);
                event.text = part;
            }
            if (event.type != 0) {
                found.insert(found.begin(), event);
            }
        }
        return with_texts(found);
    }

    /* What all lanes have kept, in order of time. */
    std::vector<RecordedEvent> events() const
    {
        std::vector<RecordedEvent> all;
        for (uint32_t i = 0; i <= lanes_taken(); i++) {
            const std::vector<RecordedEvent> more = events(i);
            all.insert(all.end(), more.begin(), more.end());
        }
        std::stable_sort(
            all.begin(), all.end(),
            [](const RecordedEvent &a, const RecordedEvent &b) { return a.time < b.time; });
        return all;
    }

    /* What the threads of all lanes are inside, a line each, outermost first. */
    std::string inside() const
    {
        std::string all;
        for (uint32_t i = 0; i <= lanes_taken(); i++) {
            for (uint32_t frame = 0; frame < std::min(depth(i), 5u); frame++) {
                all += line(event_at(i, lane(i) + 48 + 16 * static_cast<size_t>(frame))) + "\n";
            }
        }
        return all;
    }

    /* One event in a line: "request echo s3 1". */
    std::string line(const RecordedEvent &event) const
    {
        static const char *const types[] = {
            "",     "time",   "from",   "request",  "start",     "end",       "drop",   "post",
            "due",  "cancel", "bypass", "register", "lifecycle", "wait",      "waited", "quit",
            "mark", "name",   "stall",  "line",     "deferred",  "completed", "lost",   "missed"};
        std::string told = event.type < std::size(types) ? types[event.type] : "?";
        told += event.detail ? "/" + std::to_string(event.detail) : "";
        told += " " + name(event.who);
        told += " s" + std::to_string(event.session) + " " + std::to_string(event.arg);
        return event.text.empty() ? told : told + " \"" + event.text + "\"";
    }

    /* The events of certain types, a line each, in order of time. */
    std::string told(std::initializer_list<uint32_t> types) const
    {
        std::string all;
        for (const RecordedEvent &event : events()) {
            if (std::find(types.begin(), types.end(), event.type) != types.end()) {
                all += line(event) + "\n";
            }
        }
        return all;
    }

    /* The events between the marks 1 and 2, a line each. */
    std::string between_marks() const
    {
        std::string all;
        bool inside = false;
        for (const RecordedEvent &event : events()) {
            if (event.type == event_mark) {
                inside = event.session == 1;
            } else if (inside) {
                all += line(event) + "\n";
            }
        }
        return all;
    }

private:
    /* Without its time. */
    RecordedEvent event_at(uint32_t index, size_t at) const
    {
        return {index,
                0,
                word(at + 4) & 0xff,
                word(at + 4) >> 8 & 0xff,
                word(at + 4) >> 16,
                static_cast<int32_t>(word(at + 8)),
                static_cast<int32_t>(word(at + 12)),
                ""};
    }

    size_t slot(uint32_t index, uint64_t number) const
    {
        const size_t rings = naming(names());
        return rings + (static_cast<size_t>(index) * capacity() +
                        static_cast<size_t>(number & (capacity() - 1))) *
                           16;
    }

    static std::vector<RecordedEvent> with_texts(const std::vector<RecordedEvent> &events)
    {
        std::vector<RecordedEvent> told;
        for (const RecordedEvent &event : events) {
            if (event.type != event_name) {
                told.push_back(event);
            } else if (!told.empty()) {
                told.back().text += event.text;
            }
        }
        return told;
    }

    const uint8_t *bytes_;
};

/* A clock that counts how often it is read: no two events have one time. */
inline std::atomic<uint64_t> counting_clock_now{1};
inline uint64_t counting_clock()
{
    return counting_clock_now++;
}

/* Memory for a recorder, and the configuration that uses it. What is recorded when it goes ends;
 * the loop does not run then. */
class RecordedMemory {
public:
    explicit RecordedMemory(uint32_t mask = QOR_TRACE_DEFAULT, uint32_t lanes = 6,
                            uint32_t events = 1024, uint32_t names = 16)
        : size_(qor_trace_size(lanes, names, events)), memory_(size_ + 64)
    {
        config.size = sizeof(config);
        config.mask = mask;
        config.memory =
            reinterpret_cast<void *>((reinterpret_cast<uintptr_t>(memory_.data()) + 63) / 64 * 64);
        config.memory_size = size_;
        config.lanes = lanes;
        config.names = names;
        config.clock = counting_clock;
    }

    ~RecordedMemory() { qor_trace_stop(); }
    RecordedMemory(const RecordedMemory &) = delete;
    RecordedMemory &operator=(const RecordedMemory &) = delete;

    /* Of what is there now: once nothing is recorded any more. */
    Recording recording() const { return Recording(config.memory); }

    size_t size() const { return size_; }

    qor_trace_config_t config = {};

private:
    size_t size_;
    std::vector<char> memory_;
};

/* A copy of the recording that is under way. */
class CopiedRecording : public Recording {
public:
    explicit CopiedRecording(size_t size) : CopiedRecording(std::vector<char>(size)) {}

private:
    explicit CopiedRecording(std::vector<char> memory)
        : Recording(memory.data()), memory_(std::move(memory))
    {
        EXPECT_EQ(qor_trace_snapshot(memory_.data(), memory_.size()),
                  static_cast<int64_t>(memory_.size()));
    }

    std::vector<char> memory_;
};

#endif /* QOR_TESTS_RECORDING_HPP */
