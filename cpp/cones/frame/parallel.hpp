// The host parallel-loop policy shared by every cone.
//
// A loop over n items runs on one thread when n <= threshold (8192 unless an
// operation says otherwise) and on the OpenMP default team otherwise. Items
// are split into contiguous blocks, one per thread: with T threads, q = n / T
// and r = n % T; thread t < r takes q + 1 items from t * (q + 1), thread
// t >= r takes q items from r + t * q. Sums are formed per thread in index
// order and combined into one total with an atomic compare-and-swap add.
#pragma once

#include <omp.h>

#include <atomic>
#include <cstdint>

#include "cones/host_loops.hpp"

namespace dravik::mirel::cones::cpp {

constexpr uint64_t kParallelThreshold = 8192;   // elementwise loops
constexpr uint64_t kDiagonalThreshold = 2048;   // diagonal fills of n x n results

struct ItemRange {
    uint64_t begin;
    uint64_t end;
};

// Block t of n items split over T threads.
inline ItemRange block_of(uint64_t n, uint64_t threads, uint64_t t) {
    uint64_t q = n / threads;
    uint64_t r = n % threads;
    if (t < r) return {t * (q + 1), t * (q + 1) + q + 1};
    uint64_t begin = r + t * q;
    return {begin, begin + q};
}

inline int team_size(uint64_t n, uint64_t threshold) {
    return n <= threshold ? 1 : omp_get_max_threads();
}

// Calls body(begin, end) once per thread's block. The body must not throw;
// loops that can fail record the failure and report it after the join.
template <class Body>
void parallel_blocks(uint64_t n, uint64_t threshold, Body&& body) {
    int requested = team_size(n, threshold);
    if (requested == 1) {
        body(uint64_t{0}, n);
        return;
    }
#pragma omp parallel num_threads(requested)
    {
        ItemRange range = block_of(n, static_cast<uint64_t>(omp_get_num_threads()),
                                   static_cast<uint64_t>(omp_get_thread_num()));
        body(range.begin, range.end);
    }
}

// One parallel region for a call whose loops run back to back: body(team)
// runs once on every thread of the team (when n > threshold), or once on the
// calling thread with no region started. Each phase takes this thread's
// block of its own item count (the rule above, so a phase splits exactly as
// parallel_blocks would) and team.barrier() separates the phases; starting
// one team instead of one per loop saves a region start and join per phase.
class Team {
public:
    Team(uint64_t threads, uint64_t thread) : threads_(threads), thread_(thread) {}
    uint64_t threads() const { return threads_; }
    uint64_t thread() const { return thread_; }
    ItemRange block(uint64_t n) const { return block_of(n, threads_, thread_); }
    // Every thread waits for all the others; no-op for a team of one.
    void barrier() const {
        if (threads_ > 1) {
#pragma omp barrier
        }
    }

private:
    uint64_t threads_;
    uint64_t thread_;
};

template <class Body>
void in_one_team(uint64_t n, uint64_t threshold, Body&& body) {
    int requested = team_size(n, threshold);
    if (requested == 1) {
        body(Team(1, 0));
        return;
    }
#pragma omp parallel num_threads(requested)
    body(Team(static_cast<uint64_t>(omp_get_num_threads()),
              static_cast<uint64_t>(omp_get_thread_num())));
}

inline void atomic_add(std::atomic<double>& total, double value) {
    double seen = total.load(std::memory_order_relaxed);
    while (!total.compare_exchange_weak(seen, seen + value, std::memory_order_relaxed)) {
    }
}

// Sum of term(i) for i < n by the two-stage reduction.
template <class Term>
double parallel_sum(uint64_t n, uint64_t threshold, Term&& term) {
    std::atomic<double> total{0.0};
    parallel_blocks(n, threshold, [&](uint64_t begin, uint64_t end) {
        double partial = 0.0;
        for (uint64_t i = begin; i < end; ++i) partial += term(i);
        atomic_add(total, partial);
    });
    return total.load();
}

// The two-stage total inside a team: this thread's partial goes in with the
// atomic add, and after the barrier every thread reads the same total.
inline double team_total(const Team& team, std::atomic<double>& total, double partial) {
    atomic_add(total, partial);
    team.barrier();
    return total.load(std::memory_order_relaxed);
}

// The two-stage sum whose per-thread partial is partial(begin, end): the
// terms of the block added in index order (a block loop of host_loops()).
template <class Partial>
double parallel_block_sum(uint64_t n, uint64_t threshold, Partial&& partial) {
    std::atomic<double> total{0.0};
    parallel_blocks(n, threshold, [&](uint64_t begin, uint64_t end) {
        atomic_add(total, partial(begin, end));
    });
    return total.load();
}

inline double sum_of_squares(const double* x, uint64_t n) {
    const HostLoops& loops = host_loops();
    return parallel_block_sum(n, kParallelThreshold, [&](uint64_t begin, uint64_t end) {
        return loops.sum_sq(x + begin, end - begin, 0.0);
    });
}

}  // namespace dravik::mirel::cones::cpp
