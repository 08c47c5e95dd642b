/* SPDX-License-Identifier: Apache-2.0 */
/* Brackets a call that is to leave memory behind, so that the leak checker reports any other. */
#ifndef QOR_TESTS_LEAK_HPP
#define QOR_TESTS_LEAK_HPP

#ifdef __has_feature
#if __has_feature(address_sanitizer)
#define QOR_HAS_LSAN 1
#endif
#endif
#ifdef __SANITIZE_ADDRESS__
#define QOR_HAS_LSAN 1
#endif

#ifdef QOR_HAS_LSAN
#include <sanitizer/lsan_interface.h>
#endif

/* What this thread allocates from construction to destruction may be lost. */
class PrescribedLeak {
public:
#ifdef QOR_HAS_LSAN
    PrescribedLeak()
    {
        __lsan_disable();
    }
    ~PrescribedLeak()
    {
        __lsan_enable();
    }
#else
    PrescribedLeak() {}
    ~PrescribedLeak() {}
#endif
    PrescribedLeak(const PrescribedLeak &) = delete;
    PrescribedLeak &operator=(const PrescribedLeak &) = delete;
};

#endif /* QOR_TESTS_LEAK_HPP */
