// Mutex and condition variable for objects that live as long as the process. They need no
// initialisation and are never destroyed, so no thread can meet one that is not ready or gone, and
// clang checks who holds what (-Wthread-safety).
#pragma once

#include <pthread.h>

#if defined(__clang__)
#define VEXA_ANNOTATE(x) __attribute__((x))
#else
#define VEXA_ANNOTATE(x)
#endif
#define CAPABILITY(x) VEXA_ANNOTATE(capability(x))
#define SCOPED_CAPABILITY VEXA_ANNOTATE(scoped_lockable)
#define GUARDED_BY(x) VEXA_ANNOTATE(guarded_by(x))
#define REQUIRES(...) VEXA_ANNOTATE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) VEXA_ANNOTATE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) VEXA_ANNOTATE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VEXA_ANNOTATE(release_capability(__VA_ARGS__))

class CAPABILITY("mutex") vexa_mutex {
  public:
    void lock() ACQUIRE() { pthread_mutex_lock(&native_); }
    void unlock() RELEASE() { pthread_mutex_unlock(&native_); }
    pthread_mutex_t* native() { return &native_; }

  private:
    pthread_mutex_t native_ = PTHREAD_MUTEX_INITIALIZER;
};

class SCOPED_CAPABILITY vexa_lock {
  public:
    explicit vexa_lock(vexa_mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~vexa_lock() RELEASE() { mutex_.unlock(); }
    vexa_lock(const vexa_lock&) = delete;
    vexa_lock& operator=(const vexa_lock&) = delete;

  private:
    vexa_mutex& mutex_;
};

class vexa_cond {
  public:
    void wait(vexa_mutex& mutex) REQUIRES(mutex) { pthread_cond_wait(&native_, mutex.native()); }
    void notify_all() { pthread_cond_broadcast(&native_); }

  private:
    pthread_cond_t native_ = PTHREAD_COND_INITIALIZER;
};
