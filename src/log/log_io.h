/// @file
/// Sinks for log records. For hosts: the library itself creates none of these.
///
///     Log_Thread_Mutex lock;
///     Log_IO_FILE sink;
///     lock.open(nullptr);
///     if (sink.open("/var/log/app.log", &lock, 0, 0) != 0) { ... }
///
///     lock.acquire(0);                  // the sink does not lock: its user does
///     sink.write("a record\n");
///     lock.release();
///
/// Threads: one at a time per sink.
#ifndef RUVO_LOG_IO_H
#define RUVO_LOG_IO_H

#include <fcntl.h>
#include <stdio_ext.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <string>

#include "log_cfg.h"
#include "log_mutex.h"

// Other modules were built with this virtual table, which has no slot for a destructor. A sink must
// therefore not be deleted through a Log_IO.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

/// A sink for log records. Do not delete one through a Log_IO.
class Log_IO {
 public:
  /// Opens the sink `fn`, closing it first if it is open. `lock` is only kept for the sink's user,
  /// who still owns it. Returns 0, or an error number.
  virtual int open(const char* fn, Log_Mutex* lock, int mode, int rev) = 0;
  /// Closes the sink, if it is open.
  virtual int close() = 0;
  /// Appends a string without its terminator.
  virtual int write(const char* msg) = 0;
  /// Appends a wide string without its terminator.
  virtual int write(const wchar_t* msg) = 0;
  /// Appends bytes.
  virtual int write(const void* data, std::size_t size) = 0;
  /// Discards the contents.
  virtual int empty() = 0;
  /// Passes buffered data to the system.
  virtual int flush() = 0;
  /// Size of the contents in bytes.
  virtual long size() = 0;
  /// Copies the contents to `bname`, then discards them.
  virtual int backup(const char* bname) = 0;
  /// The underlying system object, or null.
  virtual LOG_HANDLE handle() = 0;
  /// The lock kept for the sink's user; the sink never uses it.
  virtual Log_Mutex* mutex() = 0;
  /// Replaces the lock.
  virtual void mutex(Log_Mutex* mtx) = 0;
  /// The configuration kept for the sink's user; the sink never uses it.
  virtual Log_Cfg* config() = 0;
  /// Replaces the configuration.
  virtual void config(Log_Cfg* cfg) = 0;
  /// True if the user of the sink must not delete it.
  virtual bool donot_delete() = 0;

 protected:
  ~Log_IO() = default;
};

/// An append-only file. While none is open, operations do nothing and return 0, except that empty
/// and backup return -1.
class Log_IO_FILE : public Log_IO {
 public:
  Log_IO_FILE() noexcept : file_(nullptr), lock_(nullptr), cfg_(nullptr) {}
  Log_IO_FILE(const Log_IO_FILE&) = delete;
  Log_IO_FILE& operator=(const Log_IO_FILE&) = delete;

  /// `mode` 0: text; if the file does not end with a newline, one is added, so that records start
  /// on a line of their own; 1: binary; 2, 3: write-only text and binary. Every mode appends and
  /// creates a missing file (permissions 0664); none truncates it. `rev` is ignored.
  int open(const char* fn, Log_Mutex* lock, int mode, int rev) override {
    (void)rev;
    close();
    errno = 0;
    const int descriptor = ::open(fn, O_RDWR | O_CREAT | O_APPEND, 0664);
    if (descriptor <= 0) {
      return refuse(descriptor);
    }
    FILE* file = fdopen(descriptor, stream_mode(mode));
    if (file == nullptr) {
      const int error = errno;
      ::close(descriptor);
      return error;
    }
    std::fseek(file, 0, SEEK_END);
    if (mode == 0 && std::ftell(file) > 0) {
      std::fseek(file, -1, SEEK_END);
      if (std::fgetc(file) != '\n') {
        std::fseek(file, 0, SEEK_END);
        std::fputc('\n', file);
      }
      std::fseek(file, 0, SEEK_END);
    }
    file_ = file;
    lock_ = lock;
    fn_ = fn;
    return 0;
  }

  int close() override {
    if (file_ != nullptr) {
      (void)std::fclose(file_);  // nobody could act on an error
      file_ = nullptr;
    }
    return 0;
  }

  /// Returns the result of fputs.
  int write(const char* msg) override { return to_end() ? std::fputs(msg, file_) : 0; }

  /// Returns the result of fputws. As with any stream, narrow and wide text cannot be mixed until
  /// the file is opened again.
  int write(const wchar_t* msg) override { return to_end() ? std::fputws(msg, file_) : 0; }

  /// Returns the number of bytes written.
  int write(const void* data, std::size_t size) override {
    return to_end() ? static_cast<int>(std::fwrite(data, 1, size, file_)) : 0;
  }

  int empty() override {
    if (file_ == nullptr) {
      return -1;
    }
    truncate();
    return 0;
  }

  int flush() override { return file_ != nullptr ? std::fflush(file_) : 0; }

  long size() override {
    if (file_ == nullptr) {
      return 0;
    }
    const long position = std::ftell(file_);
    std::fseek(file_, 0, SEEK_END);
    const long end = std::ftell(file_);
    if (end != position) {
      std::fseek(file_, position, SEEK_SET);
    }
    return end;
  }

  /// Copies with the shell's cp; the names are not quoted, so they must be plain. Does nothing and
  /// returns 0 if `bname` is the sink's own name in any letter case. Returns the result of the
  /// truncation, or -1 if the command would exceed 511 bytes.
  int backup(const char* bname) override {
    if (strcasecmp(bname, fn_.c_str()) == 0) {
      return 0;
    }
    char command[512];
    const int length = std::snprintf(command, sizeof(command), "cp %s %s", fn_.c_str(), bname);
    if (file_ == nullptr || length < 0 || static_cast<std::size_t>(length) >= sizeof(command)) {
      return -1;
    }
    flush();
    // Truncate even if the copy failed: a full disk must not stop the log.
    const int copied = std::system(command);  // NOLINT(concurrency-mt-unsafe,cert-env33-c)
    (void)copied;
    return truncate();
  }

  LOG_HANDLE handle() override { return file_; }
  Log_Mutex* mutex() override { return lock_; }
  void mutex(Log_Mutex* mtx) override { lock_ = mtx; }
  Log_Cfg* config() override { return cfg_; }
  void config(Log_Cfg* cfg) override { cfg_ = cfg; }
  bool donot_delete() override { return false; }

  /// Closes the file. The sink owns neither lock nor configuration.
  virtual ~Log_IO_FILE() { Log_IO_FILE::close(); }

 protected:
  FILE* file_;       ///< null while no file is open
  std::string fn_;   ///< the name passed to open
  Log_Mutex* lock_;  ///< owned by the user, as is the configuration
  Log_Cfg* cfg_;     ///< see Log_IO::config

 private:
  static const char* stream_mode(int mode) {
    switch (mode) {
      case 1:
        return "a+b";
      case 2:
        return "wt";
      case 3:
        return "wb";
      default:
        return "a+t";
    }
  }

  /// If the stream gets descriptor 0, as in a host without standard input, that counts as a
  /// failure.
  static int refuse(int descriptor) {
    if (descriptor == 0) {
      ::close(descriptor);
      return EBADF;
    }
    return errno;
  }

  /// The file appends, so a stream in write mode is at its end; one that was read through handle()
  /// must seek there. Either way earlier records go to the file first, in a write of their own, so
  /// that the records of several processes do not mix.
  bool to_end() {
    if (file_ == nullptr) {
      return false;
    }
    if (__fwriting(file_) != 0) {
      std::fflush(file_);  // a seek would also read the file again: four more system calls
    } else {
      std::fseek(file_, 0, SEEK_END);
    }
    return true;
  }

  /// Flushes first, so that buffered data is not written after the truncation.
  int truncate() {
    flush();
    return ftruncate(fileno(file_), 0);
  }
};

#pragma GCC diagnostic pop

#endif
