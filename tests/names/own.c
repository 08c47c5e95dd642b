/* SPDX-License-Identifier: Apache-2.0 */
/* A program whose own functions have the library's common names: each is called when the program
 * calls it, and never by the library. */
#define QOR_NO_COMMON_NAMES
#include "qor.h"

#include <stdio.h>
#include <stdlib.h>

#ifdef __cplusplus
extern "C" {
#endif

static int own_calls;

/* For each of the names: double name(char), unlike the library's. */
#define OWN(name)                            \
    double name(char argument);              \
    double name(char argument)               \
    {                                        \
        own_calls++;                         \
        return argument + sizeof(#name) / 4; \
    }
#include "own_functions.inc"
#undef OWN

#ifdef __cplusplus
}
#endif

enum { KEYS = 300 };

static int failed;

static void check(const char *what, int holds)
{
    if (!holds) {
        fprintf(stderr, "FAILED: %s\n", what);
        failed++;
    }
}

static int32_t count_entry(void *data, const char *key, void *val)
{
    (void)key, (void)val;
    ++*(int *)data;
    return 0;
}

/* Long enough for every turn of the tree, and for all that a map asks of the tree below it. */
static void check_strings(void)
{
    qor_rbtree_kv_root map;
    char key[16];
    int count = 0;
    void *val = NULL;

    check("a map is made", qor_rbapi_kv_init(&map, free) == 0);
    for (int i = 0; i < KEYS; i++) {
        qor_hal_snprintf(key, sizeof(key), "key %d", i);
        check("it takes a key", qor_rbapi_kv_insert(key, malloc(1), &map) == 0);
    }
    for (int i = 0; i < KEYS; i += 2) {
        qor_hal_snprintf(key, sizeof(key), "key %d", i);
        check("it gives one up", qor_rbapi_kv_erase(key, &map) == 0);
    }
    check("it has what is left",
          qor_rbapi_kv_travel(&count, &map, count_entry) == 0 && count == KEYS / 2);
    check("it finds", qor_rbapi_kv_find("key 7", &val, &map) == 0 && val);
    check("it ends", qor_rbapi_kv_destroy(&map) == 0);
}

static void check_keys(void)
{
    static char keys[KEYS];
    qor_rbtree_root root;
    size_t last = 0;

    check("a keyed tree is made", qor_rbapi_init(&root, NULL, NULL, NULL, malloc, free) == 0);
    for (int i = 0; i < KEYS; i++) {
        check("it takes a key", qor_rbapi_insert(&keys[i * 7 % KEYS], NULL, &root) == 0);
    }
    check("it takes one out", qor_rbapi_replace(&keys[3], NULL, &root) == 0);
    check("it gives one up", qor_rbapi_erase(&keys[4], &root) == 0 && root.count == KEYS - 1);
    for (qor_rb_node *node = qor_rb_first(&root.root); node; node = qor_rb_next(node)) {
        const size_t key = (size_t)((qor_rbtree_node *)node)->key;
        check("it is in order", last < key);
        last = key;
    }
    check("it ends", qor_rbapi_destroy(&root) == 0);
}

static void nothing(qor_context_t *self)
{
    (void)self;
}

static qor_bus_t *bus;
static int lines; /* of the library, with this program's own formatted output beside them */

static int32_t init(qor_context_t *self, void *arg)
{
    (void)self, (void)arg;
    qor_hal_printf("the module is up\n");
    return qor_bus_quit(bus);
}

static int32_t handle_message(qor_context_t *self, qor_context_msg_t *msg)
{
    (void)self, (void)msg;
    return 0;
}

static void take_line(void *arg, int32_t level, const char *fmt, va_list ap)
{
    (void)arg, (void)level, (void)fmt, (void)ap;
    __atomic_fetch_add(&lines, 1, __ATOMIC_RELAXED);
}

/* Lines, threads' names and the clock, as a whole bus uses them. */
static void check_bus(void)
{
    static const qor_output_t output = {take_line, NULL};
    qor_context_module_t module = {
        "module", 0, 1, 0, 0, 0, NULL, nothing, nothing, init, nothing, NULL, handle_message};
    qor_context_module_t *modules[] = {&module, NULL};

    qor_output_set(&output);
    bus = qor_bus_create(modules, 1);
    check("a bus runs", bus && qor_bus_loop(bus) == 0);
    qor_bus_close(bus);
    const int before = lines;
    qor_bus_close(NULL); /* prints a line */
    qor_output_set(NULL);
    check("lines come", before >= 1 && lines > before);
}

int main(void)
{
    check_strings();
    check_keys();
    check_bus();
    check("the library calls its own functions", own_calls == 0);

#define OWN(name) check(#name " is the program's", name(2) == 2 + sizeof(#name) / 4);
#include "own_functions.inc"
    check("each of them was called", own_calls > 40);
    return failed > 0;
}
