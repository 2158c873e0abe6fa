// Sessions in Redis: each is a hash that expires some time after its last use.
//
//   session_store<ruvo::pool> sessions(ruvo::pool(eTempServer), std::chrono::minutes(30));
//   if (const auto saved = sessions.save(id, {{"user", "7"}, {"role", "guest"}}); !saved) ...
#ifndef SESSION_STORE_H
#define SESSION_STORE_H

#include <chrono>
#include <map>
#include <ruvo/ruvo.hpp>
#include <string>
#include <string_view>
#include <utility>

// The pool is a parameter, so that a test can bring one on a backend of its own.
template <typename Pool>
class session_store {
 public:
  using session = std::map<std::string, std::string>;

  session_store(Pool pool, std::chrono::seconds life) : pool_(std::move(pool)), life_(life) {}

  // Stores all fields and the time to live in one command, so that no session stays for ever.
  ruvo::result<void> save(std::string_view id, const session& fields) const {
    return pool_.hset(key_of(id), fields, life_);
  }

  // Reads a session and restarts its time to live; absent() if there is none.
  ruvo::result<session> load(std::string_view id) const {
    auto found = pool_.hgetall(key_of(id));
    if (found) {
      if (const auto prolonged = pool_.expire(key_of(id), life_); !prolonged) {
        return prolonged.why();
      }
    }
    return found;
  }

  // Ends a session, whether or not there is one.
  ruvo::result<void> end(std::string_view id) const { return pool_.remove(key_of(id)); }

 private:
  static std::string key_of(std::string_view id) { return "session:" + std::string(id); }

  Pool pool_;
  std::chrono::seconds life_;
};

#endif
