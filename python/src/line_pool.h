// Spreads the lines of a whole-scan call over worker threads. The library has
// no threads of its own; this loop lives in the Python module only. Every line
// writes its own result slot and the slots are joined in line order, so the
// result does not depend on the thread count.
#ifndef PA_PYTHON_LINE_POOL_H
#define PA_PYTHON_LINE_POOL_H

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace pa_py {

/// Lines are handed out in chunks so that uneven lines still balance while the
/// shared counter is touched rarely.
constexpr size_t kChunksPerThread = 16;

/// Runs work(i) for i in [0, count) on `threads` threads (the caller's
/// included). Call with the GIL released; work must not touch Python objects.
template <class Work>
void for_each_line(size_t count, int threads, Work&& work) {
    const size_t workers = std::min(static_cast<size_t>(std::max(threads, 1)), count);
    if (workers <= 1) {
        for (size_t i = 0; i < count; ++i) work(i);
        return;
    }
    const size_t chunk = std::max<size_t>(1, count / (workers * kChunksPerThread));
    std::atomic<size_t> next{0};
    std::exception_ptr failure;
    std::mutex failureLock;
    auto run = [&] {
        try {
            for (size_t start; (start = next.fetch_add(chunk)) < count;) {
                const size_t end = std::min(count, start + chunk);
                for (size_t i = start; i < end; ++i) work(i);
            }
        } catch (...) {
            std::lock_guard<std::mutex> hold(failureLock);
            if (!failure) failure = std::current_exception();
            next.store(count);
        }
    };
    std::vector<std::thread> pool;
    pool.reserve(workers - 1);
    for (size_t t = 1; t < workers; ++t) pool.emplace_back(run);
    run();
    for (auto& t : pool) t.join();
    if (failure) std::rethrow_exception(failure);
}

}  // namespace pa_py

#endif
