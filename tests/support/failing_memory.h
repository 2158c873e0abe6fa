// The process's allocation functions, counted and made to fail. A test that links
// failing_memory.cpp has them in place of the standard ones, in the library as well.
#ifndef RUVO_TESTS_FAILING_MEMORY_H
#define RUVO_TESTS_FAILING_MEMORY_H

extern thread_local int allocations;  // made with operator new in this thread
extern thread_local bool no_memory;   // makes them fail

#endif
