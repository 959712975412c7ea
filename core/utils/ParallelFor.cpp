#include "core/utils/ParallelFor.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace kavra {
namespace {

// What one call shares with the threads that help it.
struct Call
{
    Call(std::uint64_t n_, std::uint64_t chunk_, const std::function<void(std::uint64_t, std::uint64_t)>& body_)
        : n(n_), chunk(chunk_), chunks((n_ + chunk_ - 1) / chunk_), body(body_)
    {
    }

    const std::uint64_t n;
    const std::uint64_t chunk;
    const std::uint64_t chunks;
    const std::function<void(std::uint64_t, std::uint64_t)>& body; // lives until every helper has ended
    std::atomic<std::uint64_t> next{0};
    std::atomic<bool> stop{false};

    std::mutex mutex;
    std::condition_variable done;
    unsigned helpers = 0; // helpers queued or running
    std::uint64_t failedChunk = ~std::uint64_t(0);
    std::exception_ptr error;

    // Takes chunks until none is left or a chunk has failed.
    void Work()
    {
        while (!stop.load(std::memory_order_relaxed)) {
            const std::uint64_t c = next.fetch_add(1, std::memory_order_relaxed);
            if (c >= chunks)
                return;
            try {
                body(c * chunk, std::min(n, (c + 1) * chunk));
            } catch (...) {
                stop.store(true, std::memory_order_relaxed);
                std::lock_guard<std::mutex> lock(mutex);
                if (c < failedChunk) {
                    failedChunk = c;
                    error = std::current_exception();
                }
            }
        }
    }

    void HelperEnded()
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (--helpers == 0)
            done.notify_all();
    }
};

class Pool
{
public:
    void EnsureThreads(unsigned count)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        while (m_threads < count) {
            std::thread(&Pool::Work, this).detach();
            ++m_threads;
        }
    }

    void Push(const std::shared_ptr<Call>& call)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_calls.push_back(call);
        }
        m_ready.notify_one();
    }

    // Takes back the helpers of `call` that no thread has started.
    unsigned Withdraw(const std::shared_ptr<Call>& call)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto kept = std::remove(m_calls.begin(), m_calls.end(), call);
        const unsigned withdrawn = static_cast<unsigned>(m_calls.end() - kept);
        m_calls.erase(kept, m_calls.end());
        return withdrawn;
    }

private:
    void Work()
    {
        for (;;) {
            std::shared_ptr<Call> call;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_ready.wait(lock, [this] { return !m_calls.empty(); });
                call = std::move(m_calls.front());
                m_calls.pop_front();
            }
            call->Work();
            call->HelperEnded();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_ready;
    std::deque<std::shared_ptr<Call>> m_calls; // one entry per helper asked for
    unsigned m_threads = 0;
};

// The process's pool.  Never destroyed: its threads may still wait on it at
// exit.  A child of fork() has none of the parent's threads, so it starts a
// pool of its own (the parent's is left behind: a thread that the child
// lacks may hold its mutex).
std::mutex poolMutex;
Pool* pool = nullptr;

void BeforeFork() { poolMutex.lock(); }
void AfterForkInParent() { poolMutex.unlock(); }
void AfterForkInChild()
{
    pool = nullptr;
    poolMutex.unlock();
}

Pool& CurrentPool()
{
    static const int registered = pthread_atfork(&BeforeFork, &AfterForkInParent, &AfterForkInChild);
    (void)registered;
    std::lock_guard<std::mutex> lock(poolMutex);
    if (pool == nullptr)
        pool = new Pool;
    return *pool;
}

} // namespace

unsigned UsefulThreads(unsigned requested)
{
    static const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    return std::max(1u, std::min(requested, cores));
}

void ParallelChunks(std::uint64_t n, std::uint64_t chunk, unsigned threads,
                    const std::function<void(std::uint64_t begin, std::uint64_t end)>& body)
{
    if (chunk == 0)
        chunk = 1;
    const std::uint64_t chunks = (n + chunk - 1) / chunk;
    const unsigned helpers = static_cast<unsigned>(std::min<std::uint64_t>(threads == 0 ? 0 : threads - 1,
                                                                            chunks == 0 ? 0 : chunks - 1));
    if (helpers == 0) {
        for (std::uint64_t c = 0; c < chunks; ++c)
            body(c * chunk, std::min(n, (c + 1) * chunk));
        return;
    }

    Pool& pool = CurrentPool();
    pool.EnsureThreads(helpers);
    auto call = std::make_shared<Call>(n, chunk, body);
    call->helpers = helpers;
    for (unsigned h = 0; h < helpers; ++h)
        pool.Push(call);
    call->Work();
    // Helpers that the pool has not started (it was busy with other calls)
    // are not waited for.
    const unsigned withdrawn = pool.Withdraw(call);
    std::unique_lock<std::mutex> lock(call->mutex);
    call->helpers -= withdrawn;
    call->done.wait(lock, [&] { return call->helpers == 0; });
    if (call->error)
        std::rethrow_exception(call->error);
}

} // namespace kavra
