#include "workload.h"

#include <ruvo/ruvo.hpp>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <numeric>
#include <thread>
#include <vector>

namespace {

constexpr int sessions_per_thread = 50;
constexpr int session_seconds = 60;
constexpr int max_friends = 5;
constexpr int raw_tries = 10;
constexpr std::chrono::milliseconds pause_in_outage(20);

// Thrown to end a round, after which the values are unknown: an operation failed in an outage, or
// the round may have received another call's replies.
struct EndOfRound {};

}  // namespace

std::int64_t Totals::all_operations() const {
  return std::accumulate(operations.begin(), operations.end(), std::int64_t{0});
}

void Worker::work(int round) {
  in_doubt_ = false;
  try {
    if (!has_account_) {
      open_account();
    }
    if (!knows_values_) {
      reset_values();
    }
    keep_session(round);
    count_visit();
    update_profile(round);
    queue_message(round);
    tag_friends(round);
    run_raw_commands(round);
    count_permanently();
  } catch (const EndOfRound&) {
    knows_values_ = false;
    std::this_thread::sleep_for(pause_in_outage);
  }
  knows_values_ = knows_values_ && !in_doubt_;
}

// Deletes values that another run left, or that are in doubt after an outage.
void Worker::reset_values() {
  for (const char* kind : {"visits", "profile", "queue", "friends"}) {
    expect(strings, "delete", [&] { return RUVO_DeleteKey(key(kind).c_str(), pool_, nullptr); });
  }
  visits_ = 0;
  points_ = 0;
  friends_.clear();
  knows_values_ = true;
}

// The key contains the pool: pools may share a server, and a raw command may reach another pool.
std::string Worker::key(const char* kind) const {
  return std::string(workload_prefix) + kind + ':' + std::to_string(pool_) + ':' + name_;
}

// Bytes that identify their owner and age, including zero bytes, with a varying length.
std::string Worker::text_for(const char* kind, int round) const {
  std::string text = key(kind) + " round " + std::to_string(round) + '\0';
  text.append(static_cast<std::size_t>(round * 37 % 900), static_cast<char>(round));
  return text;
}

// Every call goes through here. A round in doubt ends once every reply is certainly the call's own.
template <typename Operation>
int Worker::call(Family family, const char* what, const Operation& operation) {
  const Call made{family, what, pool_};
  const auto begin = std::chrono::steady_clock::now();
  if (in_doubt_ && !observer_.may_be_out_of_step(made, begin)) {
    throw EndOfRound();
  }
  observer_.call_begins(made);
  const int result = operation();
  observer_.call_ended(made, result);
  in_doubt_ = observer_.may_be_out_of_step(made, begin) || in_doubt_;
  return result;
}

// Every result goes through here. RUVO_ERR_FAILED is an outage's result; any other unexpected
// result means wrong data.
bool Worker::judge(Family family, const char* what, int result, int expected) {
  ++totals_.operations[family];
  if (result == expected) {
    return true;
  }
  if (in_doubt_) {
    ++totals_.out_of_step;
    return false;
  }
  const bool wrong = result != RUVO_ERR_FAILED;
  ++(wrong ? totals_.wrong_values : totals_.failed);
  if (!wrong && totals_.outage_expected) {
    throw EndOfRound();
  }
  std::printf("%s: %s: %s (%d)\n", wrong ? "WRONG RESULT" : "FAILED", what,
              ruvo_result_text(result), result);
  return false;
}

template <typename Operation>
bool Worker::expect(Family family, const char* what, const Operation& operation, int expected) {
  return judge(family, what, call(family, what, operation), expected);
}

void Worker::check(const char* what, bool right) {
  ++totals_.values_checked;
  if (!right && in_doubt_) {
    ++totals_.out_of_step;
  } else if (!right) {
    ++totals_.wrong_values;
    std::printf("WRONG VALUE: %s\n", what);
  }
}

// A counter must have moved by `step`, or by a multiple if the command ran more than once.
void Worker::check_moved(const char* what, long long& known, long long now, long long step) {
  const long long runs = (now - known) / step;
  check(what, (now - known) % step == 0 && runs >= 1 && runs <= totals_.max_runs);
  totals_.run_twice += runs > 1 ? 1 : 0;
  known = now;
}

// Compares a buffer of the library and frees it.
void Worker::check_and_free(const char* what, const char* data, unsigned long len,
                            const std::string& expected) {
  check(what, std::string(data, len) == expected);
  RUVO_FreeResult(data);
}

// String keys.
void Worker::keep_session(int round) {
  const std::string session = key("session") + ':' + std::to_string(round % sessions_per_thread);
  const std::string text = text_for("session", round);
  if (!expect(strings, "insert", [&] {
        return RUVO_InsertKey(session.c_str(), text.data(), text.size(), session_seconds, pool_,
                              nullptr);
      })) {
    return;
  }
  const char* data = nullptr;
  unsigned long len = 0;
  if (expect(strings, "query",
             [&] { return RUVO_QueryKey(session.c_str(), &data, &len, pool_, nullptr); })) {
    check_and_free("session", data, len, text);
  }
  expect(strings, "expire",
         [&] { return RUVO_ExpireKey(session.c_str(), 2 * session_seconds, pool_, nullptr); });
  expect(strings, "exists", [&] { return RUVO_ExistsKey(session.c_str(), pool_, nullptr); });
}

void Worker::count_visit() {
  long long visits = 0;
  if (expect(strings, "increase",
             [&] { return RUVO_IncreaseKey(key("visits").c_str(), &visits, pool_, nullptr); })) {
    check_moved("visits", visits_, visits, 1);
  }
}

// Hashes.
void Worker::update_profile(int round) {
  const std::string profile = key("profile");
  const std::string field = "field" + std::to_string(round % 3);
  const std::string text = text_for("profile", round);
  if (expect(hashes, "set", [&] {
        return RUVO_HashSet(profile.c_str(), field.data(), field.size(), text.data(), text.size(),
                            -1, pool_, nullptr);
      })) {
    const char* data = nullptr;
    unsigned long len = 0;
    if (expect(hashes, "get", [&] {
          return RUVO_HashGet(profile.c_str(), field.data(), field.size(), &data, &len, pool_,
                              nullptr);
        })) {
      check_and_free("profile", data, len, text);
    }
  }
  long long points = 0;
  if (expect(hashes, "increment", [&] {
        return RUVO_HashIncrBy(profile.c_str(), "points", 6, 10, &points, pool_, nullptr);
      })) {
    check_moved("points", points_, points, 10);
  }
  expect(
      hashes, "exists",
      [&] { return RUVO_HashFieldExist(profile.c_str(), "none", 4, pool_, nullptr); }, RUVO_ABSENT);
}

// Lists: a queue that is filled and drained again.
void Worker::queue_message(int round) {
  const std::string queue = key("queue");
  const std::string text = text_for("queue", round);
  long long length = 0;
  if (!expect(lists, "push", [&] {
        return RUVO_LPush(queue.c_str(), text.data(), text.size(), 0, &length, pool_, nullptr);
      })) {
    return;
  }
  long long pushed = 0;
  check_moved("queue length", pushed, length, 1);
  std::vector<std::string> waiting;
  if (expect(lists, "range",
             [&] { return RUVO_LRange(queue.c_str(), 0, -1, waiting, pool_, nullptr); })) {
    check("queue", waiting.size() == static_cast<std::size_t>(length) &&
                       std::count(waiting.begin(), waiting.end(), text) == length);
  }
  // A pop that runs twice also takes the second message, or finds none, since its first run took
  // the last one.
  std::string message;
  const int popped =
      call(lists, "pop", [&] { return RUVO_RPop(queue.c_str(), message, pool_, nullptr); });
  if (popped == RUVO_ERR_NOT_FOUND && totals_.max_runs > 1) {
    ++totals_.run_twice;
    ++totals_.operations[lists];
  } else if (judge(lists, "pop", popped, RUVO_OK)) {
    check("message", message == text);
  }
  if (length > 1) {
    expect(strings, "delete", [&] { return RUVO_DeleteKey(queue.c_str(), pool_, nullptr); });
  }
}

// Sets.
void Worker::tag_friends(int round) {
  const std::string friends = key("friends");
  const std::string name = "friend" + std::to_string(round % max_friends);
  const bool is_new = friends_.insert(name).second;
  const int added = call(sets, "add", [&] {
    return RUVO_SAdd(friends.c_str(), name.data(), name.size(), pool_, nullptr);
  });
  if (is_new && added == RUVO_NOTHING_DONE) {  // ran twice: the second run found it
    ++totals_.run_twice;
    ++totals_.operations[sets];
  } else {
    judge(sets, "add", added, is_new ? RUVO_OK : RUVO_NOTHING_DONE);
  }
  expect(sets, "is member",
         [&] { return RUVO_SIsmember(friends.c_str(), name.data(), name.size(), pool_, nullptr); });
  std::vector<std::string> members;
  if (expect(sets, "members",
             [&] { return RUVO_SMembers(friends.c_str(), members, pool_, nullptr); })) {
    check("friends", std::set<std::string>(members.begin(), members.end()) == friends_);
  }
  if (round % max_friends == max_friends - 1) {
    expect(sets, "remove",
           [&] { return RUVO_SRem(friends.c_str(), name.data(), name.size(), pool_, nullptr); });
    friends_.erase(name);
  }
}

// A counter that nobody deletes.
void Worker::count_permanently() {
  long long count = 0;
  const int result = call(hashes, "increment", [&] {
    return RUVO_HashIncrBy(key("account").c_str(), "count", 5, 1, &count, pool_, nullptr);
  });
  ++(result == RUVO_OK ? acknowledged_ : failed_);
  judge(hashes, "increment", result, RUVO_OK);
}

void Worker::open_account() {
  has_account_ = expect(strings, "delete",
                        [&] { return RUVO_DeleteKey(key("account").c_str(), pool_, nullptr); }) &&
                 !in_doubt_;
}

void Worker::check_stored_count() {
  const char* data = nullptr;
  unsigned long len = 0;
  std::int64_t stored = 0;
  if (acknowledged_ + failed_ > 0 &&
      RUVO_HashGet(key("account").c_str(), "count", 5, &data, &len, pool_, nullptr) == RUVO_OK) {
    std::from_chars(data, data + len, stored);
    RUVO_FreeResult(data);
  }
  totals_.increments_acknowledged += acknowledged_;
  totals_.increments_failed += failed_;
  totals_.increments_stored += stored;
  totals_.increments_lost += std::max<std::int64_t>(acknowledged_ - stored, 0);
  totals_.increments_extra += std::max<std::int64_t>(stored - acknowledged_ - failed_, 0);
}

// Any command. If its failover has led to another pool, the value that it read there does not
// count, and it is sent again.
void Worker::run_raw_commands(int round) {
  const std::string note = key("note");
  const std::string text = text_for("note", round);
  for (int tries = 0; tries < raw_tries; ++tries) {
    bool left_pool = false;
    std::optional<bool> right =
        reply_is(REDIS_REPLY_STATUS, "OK", left_pool, "SETEX", note, session_seconds, text);
    if (right == true) {
      right = reply_is(REDIS_REPLY_STRING, text, left_pool, "GETRANGE", note, 0, -1);
    }
    if (!right) {
      return;
    }
    if (*right || !left_pool) {
      check("note", *right);
      return;
    }
    ++totals_.asked_again;
  }
  check("note, asked for again and again", false);
}

// If a server fails, a raw command may return to that server and give up, although a typed one
// would try the next. So its caller repeats it. Returns nothing if all calls failed.
template <typename... Words>
std::optional<bool> Worker::reply_is(int type, const std::string& text, bool& left_pool,
                                     const char* name, const Words&... words) {
  const ruvo::pool pool(static_cast<RedisServerType>(pool_));
  std::optional<ruvo::reply> reply;
  for (int tries = 0; !reply && tries < raw_tries; ++tries) {
    call(raw, name, [&] {
      ruvo::result<ruvo::reply> result = pool.command(name, words...);
      const int code = result.code();
      if (result) {
        reply = *std::move(result);
      }
      return code;
    });
    left_pool = left_pool || observer_.may_have_left_pool();
    totals_.asked_again += tries > 0 ? 1 : 0;
  }
  const bool answered = reply && !reply->is_error();
  if (!judge(raw, name, answered ? RUVO_OK : RUVO_ERR_FAILED, RUVO_OK)) {
    return std::nullopt;
  }
  return reply->type() == type && reply->text() == text;
}
