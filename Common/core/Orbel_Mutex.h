// Orbel_Mutex.h: the one mutex of the library and its tools, with the lock
// annotations clang checks (-Wthread-safety, the clang build of `./run test`).
//
// A member that more than one thread touches is declared GUARDED_BY its
// mutex (or PT_GUARDED_BY for what a pointer points at); a function that
// expects the caller to hold a mutex says REQUIRES, one that takes it itself
// says EXCLUDES. Under compilers without the analysis (gcc) the macros expand
// to nothing and the classes are plain std::mutex / std::condition_variable
// wrappers of the same size.
//
// Any thread may use these; a Mutex is not recursive.
#ifndef ORBEL_MUTEX_H
#define ORBEL_MUTEX_H

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#if defined(__clang__)
#define ORBEL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ORBEL_THREAD_ANNOTATION(x)
#endif

// Each macro is defined only where the including code has not defined it
// already, so a plug-in using another set of the same names still builds.
#ifndef CAPABILITY
#define CAPABILITY(x) ORBEL_THREAD_ANNOTATION(capability(x))
#endif
#ifndef SCOPED_CAPABILITY
#define SCOPED_CAPABILITY ORBEL_THREAD_ANNOTATION(scoped_lockable)
#endif
#ifndef GUARDED_BY
#define GUARDED_BY(x) ORBEL_THREAD_ANNOTATION(guarded_by(x))
#endif
#ifndef PT_GUARDED_BY
#define PT_GUARDED_BY(x) ORBEL_THREAD_ANNOTATION(pt_guarded_by(x))
#endif
#ifndef ACQUIRED_AFTER
#define ACQUIRED_AFTER(...) ORBEL_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#endif
#ifndef ACQUIRED_BEFORE
#define ACQUIRED_BEFORE(...) ORBEL_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#endif
#ifndef REQUIRES
#define REQUIRES(...) ORBEL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#endif
#ifndef EXCLUDES
#define EXCLUDES(...) ORBEL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#endif
#ifndef ACQUIRE
#define ACQUIRE(...) ORBEL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#endif
#ifndef RELEASE
#define RELEASE(...) ORBEL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#endif
#ifndef TRY_ACQUIRE
#define TRY_ACQUIRE(...) ORBEL_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#endif
#ifndef ASSERT_CAPABILITY
#define ASSERT_CAPABILITY(x) ORBEL_THREAD_ANNOTATION(assert_capability(x))
#endif
#ifndef RETURN_CAPABILITY
#define RETURN_CAPABILITY(x) ORBEL_THREAD_ANNOTATION(lock_returned(x))
#endif
#ifndef NO_THREAD_SAFETY_ANALYSIS
#define NO_THREAD_SAFETY_ANALYSIS ORBEL_THREAD_ANNOTATION(no_thread_safety_analysis)
#endif

#if defined(__SANITIZE_THREAD__)
#define ORBEL_MUTEX_STD 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ORBEL_MUTEX_STD 1
#endif
#endif

namespace Orbel {

class CondVar;

class CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

#ifdef ORBEL_MUTEX_STD
    void Lock() ACQUIRE() { mMutex.lock(); }
    void Unlock() RELEASE() { mMutex.unlock(); }
    bool TryLock() TRY_ACQUIRE(true) { return mMutex.try_lock(); }
#else
    // Out of line, one copy for the whole library: a lock site is then a
    // call, as it was with the C library's mutex, instead of a
    // compare-and-swap loop and its barriers inlined at each of some two
    // hundred sites (and again on every unwinding path), which cost the
    // 32-bit library 28 KB.
    __attribute__((noinline)) void Lock() ACQUIRE() {
        uint32_t free = 0;
        if (mState.compare_exchange_strong(free, 1, std::memory_order_acquire,
                                           std::memory_order_relaxed)) {
            return;
        }
        LockContended();
    }
    __attribute__((noinline)) void Unlock() RELEASE() {
        if (mState.exchange(0, std::memory_order_release) == 2) Wake();
    }
    bool TryLock() TRY_ACQUIRE(true) {
        uint32_t free = 0;
        return mState.compare_exchange_strong(free, 1, std::memory_order_acquire,
                                              std::memory_order_relaxed);
    }
#endif
    // Tells the analysis the caller holds this mutex where it cannot see it
    // (a callback run under a lock taken by its caller); checks nothing.
    void AssertHeld() ASSERT_CAPABILITY(this) {}

private:
    friend class CondVar;
#ifdef ORBEL_MUTEX_STD
    std::mutex mMutex;
#else
    static constexpr int kFutexWait = 128;  // FUTEX_WAIT | FUTEX_PRIVATE_FLAG
    static constexpr int kFutexWake = 129;  // FUTEX_WAKE | FUTEX_PRIVATE_FLAG
    static constexpr int kSpins = 64;

    __attribute__((noinline, cold)) void LockContended() {
        // Most sections under these mutexes are short: the holder is often
        // done before a sleep would even begin.
        for (int i = 0; i < kSpins; ++i) {
            uint32_t free = 0;
            if (mState.load(std::memory_order_relaxed) == 0 &&
                mState.compare_exchange_weak(free, 1, std::memory_order_acquire,
                                             std::memory_order_relaxed)) {
                return;
            }
        }
        // Marked as slept on (2), so that the holder's Unlock wakes a
        // sleeper; the thread that takes it this way keeps the mark, which at
        // worst costs one wake nobody waits for.
        while (mState.exchange(2, std::memory_order_acquire) != 0) {
            syscall(SYS_futex, &mState, kFutexWait, 2, nullptr, nullptr, 0);
        }
    }
    __attribute__((noinline, cold)) void Wake() {
        syscall(SYS_futex, &mState, kFutexWake, 1, nullptr, nullptr, 0);
    }

    std::atomic<uint32_t> mState{0};
#endif
};

// Holds a Mutex for its scope. Unlock()/Lock() let a scope drop the mutex
// for a call that must not run under it and take it back.
class SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mu) ACQUIRE(mu) : mMu(mu) { mMu.Lock(); }
    ~MutexLock() RELEASE() {
        if (mHeld) mMu.Unlock();
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    void Unlock() RELEASE() {
        mMu.Unlock();
        mHeld = false;
    }
    void Lock() ACQUIRE() {
        mMu.Lock();
        mHeld = true;
    }

private:
    Mutex& mMu;
    bool mHeld = true;
};

// A condition variable waited on with a Mutex held. Predicates run with the
// mutex held; a lambda that reads guarded members says so with
// `[this]() REQUIRES(mu) { ... }`.
class CondVar {
public:
    // Out of line: the standard condition variable makes and frees a shared
    // mutex of its own, code that every class holding one would repeat.
    __attribute__((noinline)) CondVar() {}
    __attribute__((noinline)) ~CondVar() {}
    CondVar(const CondVar&) = delete;
    CondVar& operator=(const CondVar&) = delete;

    void Wait(Mutex& mu) REQUIRES(mu) {
        Held held(mu);
        mCv.wait(held.lock);
    }
    template <class Pred>
    void Wait(Mutex& mu, Pred pred) REQUIRES(mu) {
        Held held(mu);
        mCv.wait(held.lock, pred);
    }
    // false when the time ran out (the predicate's last value otherwise).
    template <class Rep, class Period, class Pred>
    bool WaitFor(Mutex& mu, const std::chrono::duration<Rep, Period>& d, Pred pred) REQUIRES(mu) {
        Held held(mu);
        return mCv.wait_for(held.lock, d, pred);
    }
    template <class Clock, class Dur, class Pred>
    bool WaitUntil(Mutex& mu, const std::chrono::time_point<Clock, Dur>& t, Pred pred) REQUIRES(mu) {
        Held held(mu);
        return mCv.wait_until(held.lock, t, pred);
    }
    // false when the time ran out before a notification.
    template <class Rep, class Period>
    bool WaitFor(Mutex& mu, const std::chrono::duration<Rep, Period>& d) REQUIRES(mu) {
        Held held(mu);
        return mCv.wait_for(held.lock, d) == std::cv_status::no_timeout;
    }
    void Signal() { mCv.notify_one(); }
    void SignalAll() { mCv.notify_all(); }

private:
#ifdef ORBEL_MUTEX_STD
    // The caller's std::mutex, adopted for the wait and handed back held.
    struct Held {
        explicit Held(Mutex& mu) : lock(mu.mMutex, std::adopt_lock) {}
        ~Held() { lock.release(); }
        std::unique_lock<std::mutex> lock;
    };
    std::condition_variable mCv;
#else
    // The caller's mutex, which the wait gives back and takes again.
    struct Lockable {
        Mutex& mu;
        void lock() NO_THREAD_SAFETY_ANALYSIS { mu.Lock(); }
        void unlock() NO_THREAD_SAFETY_ANALYSIS { mu.Unlock(); }
    };
    struct Held {
        explicit Held(Mutex& mu) : lock{mu} {}
        Lockable lock;
    };
    std::condition_variable_any mCv;
#endif
};

}  // namespace Orbel

#endif  // ORBEL_MUTEX_H
