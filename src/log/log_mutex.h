/// @file
/// Locks for log sinks. For hosts: the library itself creates none of these.
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

/// A handle to a system object.
typedef void* LOG_HANDLE;

// Other modules were built with this virtual table, which has no slot for a destructor. A lock must
// therefore not be deleted through a Log_Mutex.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

/// A lock. Do not delete one through a Log_Mutex.
class Log_Mutex {
 public:
  /// Creates the lock. Returns 0, or an error number.
  virtual int open(const char* name) = 0;
  /// Destroys the lock. Returns 0. REQUIRES: nobody holds it.
  virtual int close(bool call_delete) = 0;
  /// Acquires the lock. Returns 0. REQUIRES: it is open.
  virtual int acquire(int time_out) = 0;
  /// Releases the lock. Returns 0. REQUIRES: this thread holds it.
  virtual int release() = 0;
  /// The name passed to open, if the lock keeps it.
  virtual const char* name() = 0;

 protected:
  ~Log_Mutex() = default;
};

/// A lock between the threads of a process. Ignores the name, `call_delete` and `time_out`: it
/// waits without limit.
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
  LOG_HANDLE mutex_;  ///< an owned pthread_mutex_t, or null

 private:
  pthread_mutex_t* mutex() { return static_cast<pthread_mutex_t*>(mutex_); }
};

/// Despite its name the same as Log_Thread_Mutex: it does not work across processes.
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
