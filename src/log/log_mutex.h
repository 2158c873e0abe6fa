/// @file
/// Locks for log sinks. Parts for hosts: the library itself creates none of them.
///
///     Log_Thread_Mutex lock;
///     lock.open(nullptr);
///     lock.acquire(0);
///     ...
///     lock.release();
#ifndef RUVO_LOG_MUTEX_H
#define RUVO_LOG_MUTEX_H

#include <pthread.h>

#include <cerrno>
#include <new>

/// An object of the system, in whatever form it has there.
typedef void* LOG_HANDLE;

// The classes are what other modules were built with, where the slots of the virtual table are
// those below and no destructor is among them. A lock is therefore not deleted through a Log_Mutex.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

/// A lock. It is not deleted through a Log_Mutex.
class Log_Mutex {
 public:
  /// Makes the lock ready. Returns 0, or an error number.
  virtual int open(const char* name) = 0;
  /// Gives up what open obtained. Returns 0. REQUIRES: nobody holds the lock.
  virtual int close(bool call_delete) = 0;
  /// Takes the lock. Returns 0. REQUIRES: the lock is open.
  virtual int acquire(int time_out) = 0;
  /// Lets it go. Returns 0. REQUIRES: this thread holds it.
  virtual int release() = 0;
  /// The name that the lock was opened with, where the kind keeps it.
  virtual const char* name() = 0;

 protected:
  ~Log_Mutex() = default;
};

/// Between the threads of a process. Waits without limit: `time_out` is ignored, and so is the
/// name.
class Log_Thread_Mutex : public Log_Mutex {
 public:
  Log_Thread_Mutex() noexcept : mutex_(nullptr) {}
  ~Log_Thread_Mutex() { Log_Thread_Mutex::close(false); }
  Log_Thread_Mutex(const Log_Thread_Mutex&) = delete;
  Log_Thread_Mutex& operator=(const Log_Thread_Mutex&) = delete;

  int open(const char* name) override {
    (void)name;
    close(false);
    pthread_mutex_t* mutex = new (std::nothrow) pthread_mutex_t;
    if (mutex == nullptr) {
      return ENOMEM;
    }
    const int result = pthread_mutex_init(mutex, nullptr);
    if (result != 0) {
      delete mutex;
      return result;
    }
    mutex_ = mutex;
    return 0;
  }

  int close(bool call_delete) override {
    (void)call_delete;
    if (mutex_ != nullptr) {
      pthread_mutex_destroy(mutex());
      delete mutex();
      mutex_ = nullptr;
    }
    return 0;
  }

  int acquire(int time_out) override {
    (void)time_out;
    pthread_mutex_lock(mutex());
    return 0;
  }

  int release() override {
    pthread_mutex_unlock(mutex());
    return 0;
  }

  const char* name() override { return nullptr; }

 protected:
  LOG_HANDLE mutex_;  ///< a pthread_mutex_t of its own, or null

 private:
  pthread_mutex_t* mutex() { return static_cast<pthread_mutex_t*>(mutex_); }
};

/// Despite its name exactly a Log_Thread_Mutex: it does not reach other processes.
class Log_Unix_Process_Mutex : public Log_Thread_Mutex {};

/// Does nothing on this platform: every operation returns 0.
class Log_Win32_Process_Mutex : public Log_Mutex {
 public:
  Log_Win32_Process_Mutex() : mutex_(nullptr), name_() {}

  int open(const char* name) override {
    (void)name;
    return 0;
  }
  int close(bool call_delete) override {
    (void)call_delete;
    return 0;
  }
  int acquire(int time_out) override {
    (void)time_out;
    return 0;
  }
  int release() override { return 0; }
  const char* name() override { return name_; }

 protected:
  LOG_HANDLE mutex_;  ///< null
  char name_[252];    ///< empty
};

#pragma GCC diagnostic pop

#endif
