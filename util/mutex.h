// SPDX-License-Identifier: Apache-2.0
//
// A mutex that clang checks: what is GUARDED_BY one is touched only while it is held
// (scripts/lint).
#pragma once

#include <android-base/thread_annotations.h>

#include <condition_variable>
#include <mutex>

// The attributes are clang's.
#ifndef __clang__
#undef THREAD_ANNOTATION_ATTRIBUTE__
#define THREAD_ANNOTATION_ATTRIBUTE__(x)
#endif

namespace Tesu::Bpf {

class CAPABILITY("mutex") Mutex {
  public:
    void lock() ACQUIRE() { mutex.lock(); }
    void unlock() RELEASE() { mutex.unlock(); }

    // Waits until `condition` is notified and `isMet`, which is called with the mutex held, answers
    // true, at most for `duration`; its last answer.
    template <class Duration, class Predicate>
    bool waitFor(std::condition_variable& condition, Duration duration, Predicate isMet)
        REQUIRES(this) {
        std::unique_lock held(mutex, std::adopt_lock);
        const bool met = condition.wait_for(held, duration, isMet);
        held.release();
        return met;
    }

  private:
    std::mutex mutex;
};

class SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex(mutex) { mutex.lock(); }
    ~MutexLock() RELEASE() { mutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& mutex;
};

}  // namespace Tesu::Bpf
