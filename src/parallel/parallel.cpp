#include "parallel/parallel.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

void run_workers(int threads, std::function<void(int)> const& work) {
    std::exception_ptr failure;
    std::mutex failure_mutex;
    auto guarded = [&](int worker) {
        try {
            work(worker);
        } catch (...) {
            std::lock_guard<std::mutex> lock(failure_mutex);
            if (!failure) failure = std::current_exception();
        }
    };
    // When a thread cannot be started, the ones already running are joined
    // before the std::system_error travels on, so that no joinable thread is
    // left to end the process.
    std::vector<std::thread> pool;
    try {
        for (int w = 1; w < threads; ++w) pool.emplace_back(guarded, w);
    } catch (...) {
        for (auto& t : pool) t.join();
        throw;
    }
    guarded(0);
    for (auto& t : pool) t.join();
    if (failure) std::rethrow_exception(failure);
}

void parallel_for(std::size_t count, int threads, std::function<void(std::size_t)> const& item) {
    std::atomic<std::size_t> next{0};
    std::atomic<bool> failed{false};
    int const used = static_cast<int>(std::max<std::size_t>(1, std::min<std::size_t>(threads > 0 ? threads : 1, count)));
    run_workers(used, [&](int) {
        try {
            for (std::size_t i; !failed && (i = next.fetch_add(1)) < count;) item(i);
        } catch (...) {
            failed = true;
            throw;
        }
    });
}
