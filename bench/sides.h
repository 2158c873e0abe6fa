// The ways to do an operation that are held against each other.
#ifndef RUVO_BENCH_SIDES_H
#define RUVO_BENCH_SIDES_H

#include <array>
#include <atomic>
#include <cstddef>
#include <mutex>
#include <vector>

#include "operations.h"
#include "sandbox.h"

// `shared`: the library with auto_pipelining.
enum class Side { library, shared, hiredis, pool };
inline constexpr std::array all_sides{Side::library, Side::shared, Side::hiredis, Side::pool};
inline constexpr std::array side_names{"library", "shared", "hiredis", "pool"};

// The limit: hiredis alone, on a connection that no other thread uses. The result stays in the
// reply. Without time-outs, as hiredis begins.
class BareConnections : NoCopy {
 public:
  BareConnections(int port, std::size_t threads, TimeOut time_out);
  void run(const Operation& operation, std::size_t thread) {
    run_bare(operation, *contexts_[thread]);
  }

 private:
  std::vector<Context> contexts_;
};

// The floor: the plainest pool that one could write by hand. Connections in turn, each behind a
// mutex; a value is copied out for the caller after the mutex is free again, as the library does,
// and the sockets have time-outs, as the library's. It does not mend what breaks.
class HandWrittenPool : NoCopy {
 public:
  HandWrittenPool(int port, std::size_t connections);
  void run(const Operation& operation);

 private:
  struct Connection {
    std::mutex mutex;
    Context context;
  };
  std::vector<Connection> connections_;
  std::atomic<std::size_t> turn_{0};
};

// The library, from RUVO_Init to RUVO_Fini, with one server in each pool. A process has one.
enum class RoundTrips { own, shared };
class Library : NoCopy {
 public:
  Library(const std::string& addr, std::size_t connections, RoundTrips round_trips);
  ~Library();

 private:
  HostConfig config_;
};

// While it lives, the library's lines from INFO on go to a file, through the sink and the lock that
// come with the library. After it the threshold is WARN.
class LogFile : NoCopy {
 public:
  LogFile();
  ~LogFile();

 private:
  TempDir dir_;
};

#endif
