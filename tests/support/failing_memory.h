// What failing_memory.cpp (operator new) and failing_malloc.cpp (malloc) count, and let fail.
#ifndef RUVO_TESTS_FAILING_MEMORY_H
#define RUVO_TESTS_FAILING_MEMORY_H

extern thread_local int allocations;         // made in this thread
extern thread_local int live_allocations;    // of those, not yet released by this thread
extern thread_local int failing_allocation;  // the one, counted from 0, that fails; -1: none
extern thread_local bool no_memory;          // all fail; failing_memory.cpp only

#endif
