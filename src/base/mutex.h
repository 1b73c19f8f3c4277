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

/// A field that is only touched while `mutex` is held.
#define OX_GUARDED_BY(mutex) OX_THREAD_ATTRIBUTE(guarded_by(mutex))
/// A function that is only called while `mutex` is held.
#define OX_REQUIRES(mutex) OX_THREAD_ATTRIBUTE(requires_capability(mutex))
/// A function that takes `mutex` itself.
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

/// Holds a mutex for its own life, but for the waits.
class OX_THREAD_ATTRIBUTE(scoped_lockable) MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) OX_THREAD_ATTRIBUTE(acquire_capability(mutex))
        : lock_(mutex.mutex_) {}
    ~MutexLock() OX_THREAD_ATTRIBUTE(release_capability()) = default;
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    /// Both may end without reason. The condition is looked at in a loop around them rather than in
    /// a lambda, whose body the analysis would not know to run under the lock.
    void wait(std::condition_variable& changed) { changed.wait(lock_); }
    std::cv_status wait_until(std::condition_variable& changed,
                              std::chrono::steady_clock::time_point deadline) {
        return changed.wait_until(lock_, deadline);
    }

  private:
    std::unique_lock<std::mutex> lock_;
};

}  // namespace ox
