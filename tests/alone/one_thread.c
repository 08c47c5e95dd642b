/* SPDX-License-Identifier: Apache-2.0 */
/* Preloaded into a program that is to start no thread: it ends when it does. */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

int pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*start)(void *), void *arg)
{
    (void)thread, (void)attr, (void)start, (void)arg;
    fputs("a thread is started\n", stderr);
    abort();
}
