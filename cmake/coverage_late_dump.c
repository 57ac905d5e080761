/* Linked into every binary of the coverage build only (scripts/coverage).
 *
 * GCC's coverage runtime saves a binary's counters from its own destructor, which
 * MinGW's start-up code registers with atexit after every static object of that
 * binary was constructed; so the counters were saved before any static object was
 * destroyed, and code that runs only during static destruction showed as unreached.
 * The binaries are linked with --wrap=__gcov_exit: the runtime's destructor calls the
 * empty wrapper below, and the counters are saved by the handler that arm()
 * registers before any static object is constructed, which therefore runs after the
 * last one is destroyed. arm() runs at a priority below the reserved ones, before the
 * trace lock (constructed at the first priority a program may use). */
#include <stdlib.h>

#pragma GCC diagnostic ignored "-Wprio-ctor-dtor"

void __real___gcov_exit(void);

void __wrap___gcov_exit(void) {}

static void save_counters_last(void) { __real___gcov_exit(); }

__attribute__((constructor(50))) static void arm(void) { atexit(save_counters_last); }
