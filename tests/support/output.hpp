/* SPDX-License-Identifier: Apache-2.0 */
/* Catches what a test prints on standard output, so that diagnostic lines can be compared. */
#ifndef QOR_TESTS_OUTPUT_HPP
#define QOR_TESTS_OUTPUT_HPP

#include <string>

#include "await.hpp"

/* From construction to destruction, standard output goes to a file of its own. The destructor
 * passes it on to the real standard output when the test has failed. */
class Output {
public:
    Output();
    ~Output();
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    /* All that was written since construction or the last clear(), to the letter. */
    std::string text() const;

    /* The same with every line number taken out: "[qor_que][err][qor_que_lock]:!(_this) ==
     * true.\n", so that a whole run of lines can be compared as one string. */
    std::string printed() const;

    /* How often a text occurs in printed(). */
    int count(const std::string &part) const;

    /* Waits until the text has been printed at least `times` times; false, and a line, when
     * patience ends. */
    bool await(const std::string &part, int times = 1, const Where &where = Where::here()) const;

    void clear();

private:
    int file_;
    int real_;
    long start_ = 0;
};

/* The line that a check prints: err_line("qor_que", "qor_que_lock", "!(_this) == true."). */
std::string err_line(const std::string &tag, const std::string &function, const std::string &text);

#endif /* QOR_TESTS_OUTPUT_HPP */
