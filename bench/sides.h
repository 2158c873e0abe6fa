// The compared ways to perform an operation.
#ifndef RUVO_BENCH_SIDES_H
#define RUVO_BENCH_SIDES_H

#include <array>
#include <atomic>
#include <cstddef>
#include <mutex>
#include <optional>
#include <vector>

#include "fixtures.h"
#include "operations.h"
#include "started_library.h"

// `library`: without any key; `pipelined`: with auto_pipelining.
enum class Side { library, pipelined, hiredis, pool };
inline constexpr std::array all_sides{Side::library, Side::pipelined, Side::hiredis, Side::pool};
inline constexpr std::array side_names{"library", "pipelined", "hiredis", "pool"};
constexpr std::size_t index_of(Side side) { return static_cast<std::size_t>(side); }

// The baseline: hiredis alone, on a connection that no other thread uses. The result stays in the
// reply. By default there is no timeout, as in hiredis.
class BareConnections : NoCopy {
 public:
  BareConnections(int port, std::size_t threads, Timeout timeout);
  void run(const Operation& operation, std::size_t thread) {
    run_bare(operation, *contexts_[thread]);
  }

 private:
  std::vector<Context> contexts_;
};

// What the library must not be slower than: the simplest pool that one could write by hand. It uses
// connections round-robin, each behind a mutex. Like the library, it copies a value for the caller
// after it has released the mutex, and its sockets have timeouts. It does not reconnect.
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
  std::atomic<std::size_t> next_{0};
};

// The library, from RUVO_Init to RUVO_Fini, with one server in each pool. A process has one. The
// operations use the first pool, whose server is at `addr`; the others are at `other_pools`.
enum class Pipelining { off, on };
class Library : NoCopy {
 public:
  Library(const std::string& addr, const std::string& other_pools, std::size_t connections,
          Pipelining pipelining);

 private:
  HostConfig config_;
  std::optional<StartedLibrary> library_;
};

// While it exists, the library's lines from INFO on go to a file, through the sink and the lock
// that the library provides. Afterwards the threshold is WARN.
class LogFile : NoCopy {
 public:
  LogFile();
  ~LogFile();

 private:
  TempDir dir_;
};

#endif
