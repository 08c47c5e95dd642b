/* SPDX-License-Identifier: Apache-2.0 */
/* A report of how far the modules of a bus have come, as text. */
#ifndef QOR_TESTS_START_REPORT_HPP
#define QOR_TESTS_START_REPORT_HPP

#include <string>
#include <vector>

#include "qor_start.h"

inline std::string start_state_name(int32_t state)
{
    switch (state) {
    case QOR_START_PENDING:
        return "pending";
    case QOR_START_UP:
        return "up";
    case QOR_START_NO_CONSOLE:
        return "no console";
    case QOR_START_INIT_FAILED:
        return "init failed";
    case QOR_START_NEVER:
        return "never";
    case QOR_START_NO_PURE:
        return "no pure";
    case QOR_START_NO_CLASS:
        return "no class";
    case QOR_START_NO_MEMORY:
        return "no memory";
    case QOR_START_BROKEN:
        return "broken";
    default:
        return std::to_string(state);
    }
}

/* Room for so many modules. */
class StartReport {
public:
    explicit StartReport(size_t room = 8)
        : entries(room), report{entries.data(), static_cast<uint32_t>(room), 4711}
    {
    }
    StartReport(const StartReport &) = delete;
    StartReport &operator=(const StartReport &) = delete;

    qor_start_report_t *get() { return &report; }

    /* "a: up, b: never because of a" */
    std::string text() const
    {
        std::string all;
        for (size_t i = 0; i < entries.size() && i < report.total; i++) {
            const qor_start_entry_t &entry = entries[i];
            all += (i ? ", " : "") + std::string(entry.name) + ": " + start_state_name(entry.state);
            all += entry.because[0] ? std::string(" because of ") + entry.because : "";
        }
        return all;
    }

    std::vector<qor_start_entry_t> entries;
    qor_start_report_t report;
};

#endif /* QOR_TESTS_START_REPORT_HPP */
