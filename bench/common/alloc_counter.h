// Counts the heap allocations of the whole process: this program's
// definitions of the allocator entry points take precedence over the C
// library's for every object loaded, the library under test included.
#ifndef HMISVC_BENCH_ALLOC_COUNTER_H
#define HMISVC_BENCH_ALLOC_COUNTER_H

unsigned long heap_allocations();

#endif
