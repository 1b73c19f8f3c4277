#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

// A mutex that clang's thread safety analysis understands (-Wthread-safety; clang.llvm.org/docs/
// ThreadSafetyAnalysis.html). Other compilers see plain standard types.

#ifdef __clang__
#define OX_THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define OX_THREAD_ATTRIBUTE(attribute)
#endif

#define OX_GUARDED_BY(mutex) OX_THREAD_ATTRIBUTE(guarded_by(mutex))
#define OX_REQUIRES(mutex) OX_THREAD_ATTRIBUTE(requires_capability(mutex))
#define OX_EXCLUDES(mutex) OX_THREAD_ATTRIBUTE(locks_excluded(mutex))

namespace ox {

class OX_THREAD_ATTRIBUTE(capability("mutex")) Mutex {
  public:
    void lock() OX_THREAD_ATTRIBUTE(acquire_capability()) { mutex_.lock(); }
    void unlock() OX_THREAD_ATTRIBUTE(release_capability()) { mutex_.unlock(); }

  private:
    friend class MutexLock;
    std::mutex mutex_;
};

class OX_THREAD_ATTRIBUTE(scoped_lockable) MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) OX_THREAD_ATTRIBUTE(acquire_capability(mutex))
        : lock_(mutex.mutex_) {}
    ~MutexLock() OX_THREAD_ATTRIBUTE(release_capability()) = default;
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    /// For the waits of std::condition_variable_any. Mark their predicates with OX_REQUIRES.
    void lock() OX_THREAD_ATTRIBUTE(acquire_capability()) { lock_.lock(); }
    void unlock() OX_THREAD_ATTRIBUTE(release_capability()) { lock_.unlock(); }

    /// Wakes up spuriously, too: call in a loop. (A lambda would need an annotation of its own.)
    void wait(std::condition_variable& changed) { changed.wait(lock_); }
    std::cv_status wait_until(std::condition_variable& changed,
                              std::chrono::steady_clock::time_point deadline) {
        return changed.wait_until(lock_, deadline);
    }

  private:
    std::unique_lock<std::mutex> lock_;
};

}  // namespace ox
