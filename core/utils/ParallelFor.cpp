#include "core/utils/ParallelFor.h"

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace kavra {
namespace {

// What one call shares with the threads that run its parts.
struct Call
{
    std::mutex mutex;
    std::condition_variable done;
    unsigned pending = 0;
    std::vector<std::exception_ptr> errors;
};

struct Task
{
    std::shared_ptr<Call> call;
    std::function<void()> run;
    unsigned part;
};

void Finish(Call& call, unsigned part, std::exception_ptr error)
{
    std::lock_guard<std::mutex> lock(call.mutex);
    call.errors[part] = error;
    if (--call.pending == 0)
        call.done.notify_all();
}

void RunTask(Task& task)
{
    std::exception_ptr error;
    try {
        task.run();
    } catch (...) {
        error = std::current_exception();
    }
    Finish(*task.call, task.part, error);
}

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

    void Push(Task task)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_tasks.push_back(std::move(task));
        }
        m_ready.notify_one();
    }

    // Runs one waiting task on the calling thread, if there is one.
    bool TryRunOne()
    {
        Task task;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_tasks.empty())
                return false;
            task = std::move(m_tasks.front());
            m_tasks.pop_front();
        }
        RunTask(task);
        return true;
    }

private:
    void Work()
    {
        for (;;) {
            Task task;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_ready.wait(lock, [this] { return !m_tasks.empty(); });
                task = std::move(m_tasks.front());
                m_tasks.pop_front();
            }
            RunTask(task);
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_ready;
    std::deque<Task> m_tasks;
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

void ParallelFor(std::uint64_t n, unsigned parts,
                 const std::function<void(unsigned part, std::uint64_t begin, std::uint64_t end)>& body)
{
    if (parts == 0)
        parts = 1;
    if (parts > n)
        parts = n == 0 ? 1 : static_cast<unsigned>(n);
    if (parts == 1) {
        body(0, 0, n);
        return;
    }

    Pool& pool = CurrentPool();
    pool.EnsureThreads(parts - 1);
    auto call = std::make_shared<Call>();
    call->pending = parts;
    call->errors.resize(parts);
    for (unsigned part = 1; part < parts; ++part) {
        std::uint64_t begin, end;
        PartRange(n, parts, part, begin, end);
        pool.Push(Task{call, [&body, part, begin, end] { body(part, begin, end); }, part});
    }
    std::uint64_t begin, end;
    PartRange(n, parts, 0, begin, end);
    Task own{call, [&body, begin, end] { body(0, begin, end); }, 0};
    RunTask(own);

    // Help with waiting work (this call's or another's) until this call's
    // parts have all ended.
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(call->mutex);
            if (call->pending == 0)
                break;
        }
        if (!pool.TryRunOne()) {
            std::unique_lock<std::mutex> lock(call->mutex);
            call->done.wait(lock, [&] { return call->pending == 0; });
            break;
        }
    }
    for (const std::exception_ptr& error : call->errors)
        if (error)
            std::rethrow_exception(error);
}

} // namespace kavra
