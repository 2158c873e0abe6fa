/// @file
/// Sinks for log records. Parts for hosts: the library itself creates none of them.
///
///     Log_Thread_Mutex lock;
///     Log_IO_FILE sink;
///     lock.open(nullptr);
///     if (sink.open("/var/log/app.log", &lock, 0, 0) != 0) { ... }
///
///     lock.acquire(0);                  // a sink takes no lock by itself: its user does
///     sink.write("a record\n");
///     lock.release();
///
/// Threads: one at a time on the same sink.
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

// The classes are what other modules were built with, where the slots of the virtual table are
// those below and no destructor is among them. A sink is therefore not deleted through a Log_IO.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

/// A sink for log records. It is not deleted through a Log_IO.
class Log_IO {
 public:
  /// Opens the sink `fn`; a sink that is open is closed first. `lock` is kept for the sink's user
  /// and stays his. Returns 0, or an error number.
  virtual int open(const char* fn, Log_Mutex* lock, int mode, int rev) = 0;
  /// Closes the sink, if it is open.
  virtual int close() = 0;
  /// Appends a text without its terminator.
  virtual int write(const char* msg) = 0;
  /// Appends a wide text without its terminator.
  virtual int write(const wchar_t* msg) = 0;
  /// Appends bytes.
  virtual int write(const void* data, std::size_t size) = 0;
  /// Drops everything that was written.
  virtual int empty() = 0;
  /// Hands to the system what is still buffered.
  virtual int flush() = 0;
  /// Bytes in the sink.
  virtual long size() = 0;
  /// Copies the contents to `bname` and drops them here.
  virtual int backup(const char* bname) = 0;
  /// The system's object behind the sink, or null.
  virtual LOG_HANDLE handle() = 0;
  /// The lock that the sink keeps for its user; never used by the sink itself.
  virtual Log_Mutex* mutex() = 0;
  /// Gives the sink another lock to keep.
  virtual void mutex(Log_Mutex* mtx) = 0;
  /// The configuration that the sink keeps for its user; never used by the sink itself.
  virtual Log_Cfg* config() = 0;
  /// Gives the sink another configuration to keep.
  virtual void config(Log_Cfg* cfg) = 0;
  /// Is the sink somebody else's to delete?
  virtual bool donot_delete() = 0;

 protected:
  ~Log_IO() = default;
};

/// A file that grows at its end. When none is open, every operation does nothing and returns 0;
/// empty and backup return -1.
class Log_IO_FILE : public Log_IO {
 public:
  Log_IO_FILE() noexcept : file_(nullptr), lock_(nullptr), cfg_(nullptr) {}
  Log_IO_FILE(const Log_IO_FILE&) = delete;
  Log_IO_FILE& operator=(const Log_IO_FILE&) = delete;

  /// `mode` 0: text, and a file that does not end with a newline is given one first, so that
  /// records begin on a line of their own; 1: binary; 2, 3: text and binary that are only written.
  /// Every mode appends and creates what is missing (permissions 0664); none empties the file.
  /// `rev` is ignored.
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
      return errno;
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
      (void)std::fclose(file_);  // what it says would have no listener
      file_ = nullptr;
    }
    return 0;
  }

  /// The result of fputs.
  int write(const char* msg) override { return to_end() ? std::fputs(msg, file_) : 0; }

  /// The result of fputws. A file that has taken narrow text takes no wide text until it is opened
  /// again, and the other way round: that is how streams are.
  int write(const wchar_t* msg) override { return to_end() ? std::fputws(msg, file_) : 0; }

  /// The number of bytes written.
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

  /// Copies with the shell's cp; the names are not quoted, so they must be plain. Its own name, in
  /// any letter case, is left alone (0). Returns the truncation's result; -1 when names do not fit
  /// into a command of 511 bytes.
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
    // The contents go whether or not they were copied: a full disk must not stop the log.
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

  /// Closes the file. Lock and configuration are not the sink's to delete.
  virtual ~Log_IO_FILE() { Log_IO_FILE::close(); }

 protected:
  FILE* file_;       ///< null while no file is open
  std::string fn_;   ///< the name that the file was opened with
  Log_Mutex* lock_;  ///< its user's, as is the configuration
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

  /// Descriptor 0 counts as a failure as well; a host without standard input gets it.
  static int refuse(int descriptor) {
    if (descriptor == 0) {
      ::close(descriptor);
      return EBADF;
    }
    return errno;
  }

  /// The file appends, so a stream that is being written to is at its end; one that was read from,
  /// by way of handle(), is sought there. What cannot be sought in, a pipe say, is at its end.
  /// Either way what was written before goes to the file first: in a single write of its own, so
  /// that the records of several processes do not mix.
  bool to_end() {
    if (file_ == nullptr) {
      return false;
    }
    if (__fwriting(file_) != 0) {
      std::fflush(file_);  // a seek would also read the file anew, for four system calls more
    } else {
      std::fseek(file_, 0, SEEK_END);
    }
    return true;
  }

  /// What is still buffered goes to the file first, so that it does not land behind the truncation.
  int truncate() {
    flush();
    return ftruncate(fileno(file_), 0);
  }
};

#pragma GCC diagnostic pop

#endif
