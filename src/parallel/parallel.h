// The run's one thread pool: a fixed set of workers that share a counter.
#pragma once

#include <cstddef>
#include <functional>

// Runs work(worker) for worker = 0 .. threads - 1, the calling thread being
// worker 0, and waits for all. The first exception thrown by any worker is
// rethrown here once every worker has stopped.
void run_workers(int threads, std::function<void(int worker)> const& work);

// Calls item(i) for i = 0 .. count - 1, several at once on up to `threads`
// threads, each index once. After a failure no new index is started.
void parallel_for(std::size_t count, int threads, std::function<void(std::size_t)> const& item);
