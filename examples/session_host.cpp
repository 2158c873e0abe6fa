// A small host: threads that keep sessions in the temporary pool and profiles in the persistent
// one, and check every value that they read. Prints a line a second and a summary at the end.
//
//   session_host --config conf/sruvo.conf --seconds 12 --threads 8 --log session_host.log
//
// Any failed operation is a failure of the run. With --outage-expected part of the data may be out
// of reach for a while: failed operations are counted, and the run is good when no value was wrong
// and nothing failed in its last two seconds.
#include <hiredis/hiredis.h>
#include <ruvo/ruvo.h>

#include <CLI/CLI.hpp>
#include <array>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <exception>
#include <memory>
#include <numeric>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host_log.h"

namespace {

constexpr int sessions_per_thread = 50;
constexpr int session_seconds = 60;
constexpr int most_friends = 5;
constexpr int raw_tries = 10;
constexpr int calm_seconds = 2;
constexpr std::chrono::milliseconds pause_in_outage(20);

enum Family { strings, hashes, lists, sets, raw, family_count };
constexpr std::array<const char*, family_count> family_names{"string keys", "hashes", "lists",
                                                             "sets", "raw commands"};

struct Totals {
  bool outage_expected = false;
  std::array<std::atomic<std::int64_t>, family_count> operations{};
  std::atomic<std::int64_t> values_checked{0};
  std::atomic<std::int64_t> run_twice{0};
  std::atomic<std::int64_t> asked_again{0};
  std::atomic<std::int64_t> failed{0};
  std::atomic<std::int64_t> wrong_values{0};

  std::int64_t all_operations() const {
    return std::accumulate(operations.begin(), operations.end(), std::int64_t{0});
  }
};

// Thrown out of a round: an operation failed in an outage, and so may have been done or not.
struct LostTrack {};

// One thread's work on one pool. Its keys are its own, so it knows what each of them must hold.
//
// A connection that breaks between a command and its reply has the command sent again. What is not
// the same when done twice (counting, pushing) may then have been done twice, and never less than
// once; the checks allow for that and count it.
class Worker {
 public:
  Worker(int thread, int pool, Totals& totals)
      : name_(std::to_string(thread)), pool_(pool), totals_(totals) {}

  void work(int round) {
    try {
      if (!on_track_) {
        start_afresh();
      }
      keep_session(round);
      count_visit();
      update_profile(round);
      queue_message(round);
      tag_friends(round);
      ask_anything(round);
    } catch (const LostTrack&) {
      on_track_ = false;
      std::this_thread::sleep_for(pause_in_outage);
    }
  }

 private:
  // What another run left behind, or an outage left in doubt, does not count.
  void start_afresh() {
    for (const char* kind : {"visits", "profile", "queue", "friends"}) {
      expect(strings, "delete", RUVO_DeleteKey(key(kind).c_str(), pool_, nullptr));
    }
    visits_ = 0;
    points_ = 0;
    friends_.clear();
    on_track_ = true;
  }

  std::string key(const char* kind) const { return std::string(kind) + ':' + name_; }

  // Every call goes through here. RUVO_ERR_FAILED is what an outage gives; any other result that is
  // not the expected one tells of wrong data.
  bool expect(Family family, const char* what, int result, int expected = RUVO_OK) {
    ++totals_.operations[family];
    if (result == expected) {
      return true;
    }
    const bool wrong = result != RUVO_ERR_FAILED;
    ++(wrong ? totals_.wrong_values : totals_.failed);
    if (!wrong && totals_.outage_expected) {
      throw LostTrack();
    }
    std::printf("%s: %s: %s (%d)\n", wrong ? "WRONG RESULT" : "FAILED", what,
                ruvo_result_text(result), result);
    return false;
  }

  void check(const char* what, bool right) {
    ++totals_.values_checked;
    if (!right) {
      ++totals_.wrong_values;
      std::printf("WRONG VALUE: %s\n", what);
    }
  }

  // A counter must have moved by `step`, or by twice as much when the command ran twice.
  void check_moved(const char* what, long long& known, long long now, long long step) {
    const bool twice = now == known + 2 * step;
    check(what, now == known + step || twice);
    totals_.run_twice += twice ? 1 : 0;
    known = now;
  }

  // Compares a buffer of the library and gives it back.
  void check_and_free(const char* what, const char* data, unsigned long len,
                      const std::string& expected) {
    check(what, std::string(data, len) == expected);
    RUVO_FreeResult(data);
  }

  // Bytes that tell whose they are and how old, zero bytes among them, of a length that varies.
  std::string text_for(const char* kind, int round) const {
    std::string text = key(kind) + " round " + std::to_string(round) + '\0';
    text.append(static_cast<std::size_t>(round * 37 % 900), static_cast<char>(round));
    return text;
  }

  // String keys.
  void keep_session(int round) {
    const std::string session = key("session") + ':' + std::to_string(round % sessions_per_thread);
    const std::string text = text_for("session", round);
    if (!expect(strings, "insert",
                RUVO_InsertKey(session.c_str(), text.data(), text.size(), session_seconds, pool_,
                               nullptr))) {
      return;
    }
    const char* data = nullptr;
    unsigned long len = 0;
    if (expect(strings, "query", RUVO_QueryKey(session.c_str(), &data, &len, pool_, nullptr))) {
      check_and_free("session", data, len, text);
    }
    expect(strings, "expire", RUVO_ExpireKey(session.c_str(), 2 * session_seconds, pool_, nullptr));
    expect(strings, "exists", RUVO_ExistsKey(session.c_str(), pool_, nullptr));
  }

  void count_visit() {
    long long visits = 0;
    if (expect(strings, "increase",
               RUVO_IncreaseKey(key("visits").c_str(), &visits, pool_, nullptr))) {
      check_moved("visits", visits_, visits, 1);
    }
  }

  // Hashes.
  void update_profile(int round) {
    const std::string profile = key("profile");
    const std::string field = "field" + std::to_string(round % 3);
    const std::string text = text_for("profile", round);
    if (expect(hashes, "set",
               RUVO_HashSet(profile.c_str(), field.data(), field.size(), text.data(), text.size(),
                            -1, pool_, nullptr))) {
      const char* data = nullptr;
      unsigned long len = 0;
      if (expect(hashes, "get",
                 RUVO_HashGet(profile.c_str(), field.data(), field.size(), &data, &len, pool_,
                              nullptr))) {
        check_and_free("profile", data, len, text);
      }
    }
    long long points = 0;
    if (expect(hashes, "increment",
               RUVO_HashIncrBy(profile.c_str(), "points", 6, 10, &points, pool_, nullptr))) {
      check_moved("points", points_, points, 10);
    }
    expect(hashes, "exists", RUVO_HashFieldExist(profile.c_str(), "none", 4, pool_, nullptr),
           RUVO_ABSENT);
  }

  // Lists: a queue that is filled and drained again.
  void queue_message(int round) {
    const std::string queue = key("queue");
    const std::string text = text_for("queue", round);
    long long length = 0;
    if (!expect(lists, "push",
                RUVO_LPush(queue.c_str(), text.data(), text.size(), 0, &length, pool_, nullptr))) {
      return;
    }
    long long pushed = 0;
    check_moved("queue length", pushed, length, 1);
    std::vector<std::string> waiting;
    if (expect(lists, "range", RUVO_LRange(queue.c_str(), 0, -1, waiting, pool_, nullptr))) {
      check("queue", waiting == std::vector<std::string>(static_cast<std::size_t>(length), text));
    }
    // A pop that runs twice takes the second message along, or finds none: then its first run had
    // it.
    std::string message;
    const int popped = RUVO_RPop(queue.c_str(), message, pool_, nullptr);
    if (popped == RUVO_ERR_NOT_FOUND) {
      ++totals_.run_twice;
      ++totals_.operations[lists];
    } else if (expect(lists, "pop", popped)) {
      check("message", message == text);
    }
    if (length > 1) {
      expect(strings, "delete", RUVO_DeleteKey(queue.c_str(), pool_, nullptr));
    }
  }

  // Sets.
  void tag_friends(int round) {
    const std::string friends = key("friends");
    const std::string name = "friend" + std::to_string(round % most_friends);
    const bool is_new = friends_.insert(name).second;
    const int added = RUVO_SAdd(friends.c_str(), name.data(), name.size(), pool_, nullptr);
    if (is_new && added == RUVO_NOTHING_DONE) {  // ran twice, and the second run found it there
      ++totals_.run_twice;
      ++totals_.operations[sets];
    } else {
      expect(sets, "add", added, is_new ? RUVO_OK : RUVO_NOTHING_DONE);
    }
    expect(sets, "is member",
           RUVO_SIsmember(friends.c_str(), name.data(), name.size(), pool_, nullptr));
    std::vector<std::string> members;
    if (expect(sets, "members", RUVO_SMembers(friends.c_str(), members, pool_, nullptr))) {
      check("friends", std::set<std::string>(members.begin(), members.end()) == friends_);
    }
    if (round % most_friends == most_friends - 1) {
      expect(sets, "remove", RUVO_SRem(friends.c_str(), name.data(), name.size(), pool_, nullptr));
      friends_.erase(name);
    }
  }

  // Any command: the reply is hiredis' own.
  void ask_anything(int round) {
    const std::string note = key("note");
    const std::string text = text_for("note", round);
    expect_reply("SETEX", REDIS_REPLY_STATUS, "OK", "SETEX %s %d %b", note.c_str(), session_seconds,
                 text.data(), text.size());
    expect_reply("GETRANGE", REDIS_REPLY_STRING, text, "GETRANGE %s %d %d", note.c_str(), 0, -1);
  }

  // When a server fails, a raw command may find its way back to that very server and give up, where
  // a typed one walks on: its caller asks again.
  template <typename... Args>
  void expect_reply(const char* what, int type, const std::string& text, const char* format,
                    Args... args) {
    std::unique_ptr<redisReply, decltype(&RUVO_FreeReplyObject)> reply(nullptr,
                                                                       RUVO_FreeReplyObject);
    for (int tries = 0; reply == nullptr && tries < raw_tries; ++tries) {
      reply.reset(static_cast<redisReply*>(RUVO_ExecRedisCmd(pool_, format, args...)));
      totals_.asked_again += tries > 0 ? 1 : 0;
    }
    const bool answered = reply != nullptr && reply->type != REDIS_REPLY_ERROR;
    if (expect(raw, what, answered ? RUVO_OK : RUVO_ERR_FAILED)) {
      check(what, reply->type == type && std::string(reply->str, reply->len) == text);
    }
  }

  std::string name_;
  int pool_;
  Totals& totals_;
  bool on_track_ = false;  // the fields below say what the keys hold
  long long visits_ = 0;
  long long points_ = 0;
  std::set<std::string> friends_;
};

// A thread: all three pools, round after round.
void work(int thread, Totals& totals, const std::atomic<bool>& stop) {
  std::array workers{Worker(thread, eTempServer, totals), Worker(thread, ePersistServer, totals),
                     Worker(thread, ePersonalityServer, totals)};
  for (int round = 0; !stop; ++round) {
    for (Worker& worker : workers) {
      worker.work(round);
    }
  }
}

void print_progress(int second, const Totals& totals) {
  const ServerEvents events = server_events();
  std::printf("%3d s  %9" PRId64 " operations  %9" PRId64 " values checked  %" PRId64
              " wrong  %" PRId64 " failed  %ld reconnections  %ld ejections\n",
              second, totals.all_operations(), totals.values_checked.load(),
              totals.wrong_values.load(), totals.failed.load(), events.rebuilds, events.ejections);
  std::fflush(stdout);
}

void print_summary(const Totals& totals) {
  const ServerEvents events = server_events();
  std::printf("\noperations done      %" PRId64 "\n", totals.all_operations());
  for (std::size_t family = 0; family < family_names.size(); ++family) {
    std::printf("  %-18s %" PRId64 "\n", family_names[family], totals.operations[family].load());
  }
  std::printf("values checked       %" PRId64 "\nwrong values         %" PRId64
              "\nfailed operations    %" PRId64 "\nrun twice            %" PRId64
              " (sent again after a broken connection)\n"
              "asked again          %" PRId64
              " (raw commands without a reply)\n"
              "reconnections        %ld (and %ld attempts that failed)\n"
              "ejections            %ld (and %ld retries)\n",
              totals.values_checked.load(), totals.wrong_values.load(), totals.failed.load(),
              totals.run_twice.load(), totals.asked_again.load(), events.rebuilds,
              events.failed_rebuilds, events.ejections, events.retries);
}

int run(int argc, char** argv) {
  std::string config;
  std::string log_path = "session_host.log";
  int seconds = 10;
  int thread_count = 8;
  Totals totals;
  CLI::App app("Stores, reads, counts and expires keys from many threads and checks what it reads");
  app.add_option("--config", config, "Local configuration file")->required();
  app.add_option("--log", log_path, "File for the library's log")->capture_default_str();
  app.add_option("--seconds", seconds, "How long to run")
      ->capture_default_str()
      ->check(CLI::Range(1, 86400));
  app.add_option("--threads", thread_count, "Threads that work")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000));
  app.add_flag("--outage-expected", totals.outage_expected,
               "Operations may fail for a while, though not in the last two seconds");
  CLI11_PARSE(app, argc, argv);

  if (!open_log(log_path)) {
    std::fprintf(stderr, "session_host: cannot write %s\n", log_path.c_str());
    return 2;
  }
  const int ret = RUVO_Init(config.c_str());
  if (ret != RUVO_OK) {
    std::fprintf(stderr, "session_host: RUVO_Init: %s (%d), see %s\n", ruvo_result_text(ret), ret,
                 log_path.c_str());
    return 1;
  }
  std::int64_t failures_allowed = 0;
  std::int64_t operations_before_calm = 0;
  {
    std::atomic<bool> stop{false};
    std::vector<std::jthread> threads;
    threads.reserve(static_cast<std::size_t>(thread_count));
    for (int number = 0; number < thread_count; ++number) {
      threads.emplace_back([number, &totals, &stop] { work(number, totals, stop); });
    }
    for (int second = 1; second <= seconds; ++second) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
      print_progress(second, totals);
      if (totals.outage_expected && second == seconds - calm_seconds) {
        failures_allowed = totals.failed;
        operations_before_calm = totals.all_operations();
      }
    }
    stop = true;
  }
  RUVO_Fini();
  close_log();
  print_summary(totals);
  const bool good = totals.wrong_values == 0 && totals.failed <= failures_allowed &&
                    totals.all_operations() > operations_before_calm;
  return good ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "session_host: %s\n", failure.what());
    return 2;
  }
}
