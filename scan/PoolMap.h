#pragma once

#include <QRunnable>
#include <QThreadPool>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

// Taken by a pool task before it touches anything of the map that queued it. A global,
// so that its own construction is ordered before every use.
inline constinit std::mutex poolHandOver;

// The indices first, first + 1, ... as a sequence for mapOnPool, for steps that work on
// the caller's own storage by index.
struct IndexRange
{
    qsizetype first = 0;
    qsizetype count = 0;
    qsizetype size() const { return count; }
    qsizetype at(qsizetype i) const { return first + i; }
};

// Runs `step` over every item on the global thread pool, the calling thread taking part,
// and returns when all are done. Items are claimed through an atomic index; hand-overs
// use standard locks so that the race checker can follow every one of them (QtConcurrent
// and std::function tasks are handed over inside the uninstrumented Qt libraries and
// read before any lock of ours could order them). Helpers that the pool only gets round
// to after the caller has finished find the map closed and leave at once, so a busy
// pool never holds the caller up.
template <typename Sequence, typename Step> inline void mapOnPool(const Sequence &sequence, const Step &step)
{
    struct Shared
    {
        Shared(const Sequence &sequence, const Step &step) : sequence(sequence), step(step) {}

        void work()
        {
            for (qsizetype i = next++; i < sequence.size(); i = next++)
                step(sequence.at(i));
        }

        void help()
        {
            {
                std::lock_guard lock(mutex);
                if (closed)
                    return;
                ++active;
            }
            work();
            std::lock_guard lock(mutex);
            if (--active == 0)
                idle.notify_all();
        }

        const Sequence &sequence;
        const Step &step;
        std::atomic<qsizetype> next{0};
        std::mutex mutex;
        std::condition_variable idle;
        qsizetype active = 0;
        bool closed = false;
    };
    struct Helper final : QRunnable
    {
        explicit Helper(std::shared_ptr<Shared> shared) : shared(std::move(shared)) {}
        void run() override
        {
            {
                std::lock_guard lock(poolHandOver);
            }
            shared->help();
        }
        std::shared_ptr<Shared> shared;
    };

    const auto shared = std::make_shared<Shared>(sequence, step);
    QThreadPool *pool = QThreadPool::globalInstance();
    const qsizetype helpers = std::min<qsizetype>(pool->maxThreadCount(), sequence.size()) - 1;
    for (qsizetype h = 0; h < helpers; ++h) {
        auto *helper = new Helper(shared);
        {
            std::lock_guard lock(poolHandOver);
        }
        pool->start(helper);
    }
    shared->work();
    std::unique_lock lock(shared->mutex);
    shared->closed = true;
    shared->idle.wait(lock, [&shared] { return shared->active == 0; });
}
