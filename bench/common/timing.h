// Small helpers of the round-based benchmarks.
#ifndef HMISVC_BENCH_TIMING_H
#define HMISVC_BENCH_TIMING_H

#include <sys/resource.h>
#include <sys/time.h>

#include <algorithm>
#include <ctime>
#include <vector>

#include "alloc_counter.h"

inline double ns(const timespec &t) { return t.tv_sec * 1e9 + t.tv_nsec; }
inline double ns(const timeval &t) { return t.tv_sec * 1e9 + t.tv_usec * 1e3; }

inline double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

struct Totals {
    std::vector<double> wall_ns;  // one per round
    double user_ns = 0;
    double thread_ns = 0;
    unsigned long calls = 0;
    unsigned long allocations = 0;  // made while the calls ran
};

// Runs `op(i)` for i < calls, adding the round's figures to `totals`; false
// when one call fails or answers wrongly.
template <class Op>
bool round(unsigned calls, Totals &totals, Op op)
{
    rusage ru0, ru1;
    timespec wall0, wall1, cpu0, cpu1;
    getrusage(RUSAGE_THREAD, &ru0);
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu0);
    clock_gettime(CLOCK_MONOTONIC, &wall0);
    unsigned long allocations = heap_allocations();
    for (unsigned i = 0; i < calls; ++i)
        if (!op(i))
            return false;
    allocations = heap_allocations() - allocations;
    clock_gettime(CLOCK_MONOTONIC, &wall1);
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu1);
    getrusage(RUSAGE_THREAD, &ru1);
    totals.wall_ns.push_back(ns(wall1) - ns(wall0));
    totals.user_ns += ns(ru1.ru_utime) - ns(ru0.ru_utime);
    totals.thread_ns += ns(cpu1) - ns(cpu0);
    totals.calls += calls;
    totals.allocations += allocations;
    return true;
}

// One warm-up round each, then `rounds` rounds of both, alternating which
// goes first; the per-round wall-time ratios a/b go to `ratios`.
template <class A, class B>
bool alternate(unsigned rounds, unsigned calls, Totals &a_t, A a, Totals &b_t, B b,
               std::vector<double> &ratios)
{
    Totals warm;
    bool ok = round(calls, warm, a) && round(calls, warm, b);
    for (unsigned r = 0; ok && r < rounds; ++r) {
        if (r % 2)
            ok = round(calls, b_t, b) && round(calls, a_t, a);
        else
            ok = round(calls, a_t, a) && round(calls, b_t, b);
        if (ok)
            ratios.push_back(a_t.wall_ns.back() / b_t.wall_ns.back());
    }
    return ok;
}

#endif
