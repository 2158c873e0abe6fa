// What a host does with the library, checked value by value: for ruvo_chaos and for a test.
#ifndef RUVO_TESTING_WORKLOAD_H
#define RUVO_TESTING_WORKLOAD_H

#include <ruvo/ruvo.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>

enum Family { strings, hashes, lists, sets, raw, family_count };
constexpr std::array<const char*, family_count> family_names{"string keys", "hashes", "lists",
                                                             "sets", "raw commands"};

// The prefix of all keys of the workload, which nothing else uses.
constexpr std::string_view workload_prefix = "ruvo_workload:";

struct Totals {
  bool outage_expected = false;  // failed operations are counted, and end a worker's round
  int max_runs = 2;              // how often a command that was resent may have run: more is wrong
  std::array<std::atomic<std::int64_t>, family_count> operations{};
  std::atomic<std::int64_t> values_checked{0};
  std::atomic<std::int64_t> run_twice{0};
  std::atomic<std::int64_t> asked_again{0};
  std::atomic<std::int64_t> failed{0};
  std::atomic<std::int64_t> wrong_values{0};
  // Wrong values and failures while a call may have received another call's reply.
  std::atomic<std::int64_t> out_of_step{0};
  // Increments of counters that nobody deletes, as acknowledged to their callers, and as stored.
  std::atomic<std::int64_t> increments_acknowledged{0};
  std::atomic<std::int64_t> increments_failed{0};
  std::atomic<std::int64_t> increments_stored{0};
  std::atomic<std::int64_t> increments_lost{0};   // fewer stored than acknowledged
  std::atomic<std::int64_t> increments_extra{0};  // more stored than acknowledged and failed

  std::int64_t all_operations() const;
};

struct Call {
  Family family;
  const char* what;
  int pool;
};

// Observes every call, in the thread that makes it.
class CallObserver {
 public:
  CallObserver() = default;
  CallObserver(const CallObserver&) = delete;
  CallObserver& operator=(const CallObserver&) = delete;
  virtual ~CallObserver() = default;
  virtual void call_begins(const Call& /*call*/) {}
  // A raw command without a reply has the result RUVO_ERR_FAILED.
  virtual void call_ended(const Call& /*call*/, int /*result*/) {}
  // May the failover of this thread's last call have led to another pool? Only a raw command can go
  // there.
  virtual bool may_have_left_pool() const { return false; }
  // May a call that began at its time and ends now have received another call's reply?
  virtual bool may_be_out_of_step(const Call& /*call*/,
                                  std::chrono::steady_clock::time_point /*begin*/) const {
    return false;
  }
};

// One thread's work on one pool. No other thread uses its keys, so it knows the value of each.
//
// If a connection breaks between a command and its reply, the command is resent. Operations that
// are not idempotent (counting, pushing) may then run twice, and never less than once; the checks
// allow for that and count it. One counter is never deleted in a run: at the end it holds at least
// the acknowledged increments, and with send_once at most the acknowledged and the failed ones.
class Worker {
 public:
  Worker(int thread, int pool, Totals& totals, CallObserver& observer)
      : name_(std::to_string(thread)), pool_(pool), totals_(totals), observer_(observer) {}

  void work(int round);
  // After the last round: does the store hold what this worker has counted?
  void check_stored_count();

 private:
  void reset_values();
  void open_account();
  std::string key(const char* kind) const;
  std::string text_for(const char* kind, int round) const;

  template <typename Operation>
  int call(Family family, const char* what, const Operation& operation);
  bool judge(Family family, const char* what, int result, int expected);
  template <typename Operation>
  bool expect(Family family, const char* what, const Operation& operation, int expected = RUVO_OK);
  void check(const char* what, bool right);
  void check_moved(const char* what, long long& known, long long now, long long step);
  void check_and_free(const char* what, const char* data, unsigned long len,
                      const std::string& expected);

  void keep_session(int round);
  void count_visit();
  void update_profile(int round);
  void queue_message(int round);
  void tag_friends(int round);
  void run_raw_commands(int round);
  void count_permanently();
  template <typename... Words>
  std::optional<bool> reply_is(int type, const std::string& text, bool& left_pool, const char* name,
                               const Words&... words);

  std::string name_;
  int pool_;
  Totals& totals_;
  CallObserver& observer_;
  bool knows_values_ = false;  // the fields below match the keys
  long long visits_ = 0;
  long long points_ = 0;
  std::set<std::string> friends_;
  bool has_account_ = false;
  bool in_doubt_ = false;  // this round may have received another call's replies
  std::int64_t acknowledged_ = 0;
  std::int64_t failed_ = 0;
};

#endif
