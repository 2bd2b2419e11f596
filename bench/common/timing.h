// Small helpers of the round-based benchmarks.
#ifndef HMISVC_BENCH_TIMING_H
#define HMISVC_BENCH_TIMING_H

#include <sys/time.h>

#include <algorithm>
#include <ctime>
#include <vector>

inline double ns(const timespec &t) { return t.tv_sec * 1e9 + t.tv_nsec; }
inline double ns(const timeval &t) { return t.tv_sec * 1e9 + t.tv_usec * 1e3; }

inline double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

#endif
