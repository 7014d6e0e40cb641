// Runs one worker function on several threads, the calling thread included.
#pragma once

#include <thread>
#include <vector>

// Starts threads - 1 extra threads running worker, runs it on the calling
// thread as well, and waits for all of them. The workers share their work
// through the captured state, so any of them may do all of it. When a thread
// cannot be started, the threads already running are joined (they finish the
// work between them) before the std::system_error travels on, so that no
// joinable thread is left to end the process.
template <class Worker>
void run_workers(int threads, Worker const& worker) {
    std::vector<std::thread> pool;
    try {
        for (int i = 1; i < threads; ++i) pool.emplace_back(worker);
    } catch (...) {
        for (auto& t : pool) t.join();
        throw;
    }
    worker();
    for (auto& t : pool) t.join();
}
