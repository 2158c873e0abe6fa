// Unit tests of login_service.h without a Redis and without a configuration: the pool runs on a
// backend in this file, which keeps in memory what the service needs.
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "login_service.h"

namespace {

struct memory {
  std::map<std::string, std::map<std::string, std::string>> hashes;
  std::map<std::string, long long> counters;
  bool down = false;
};

// Has only the functions that the service calls: the compiler reports any that is missing.
struct memory_backend {
  memory* data;

  ruvo::result<void> remove(RedisServerType, std::string_view key) const {
    data->hashes.erase(std::string(key));
    return data->down ? RUVO_ERR_FAILED : RUVO_OK;
  }
  ruvo::result<void> expire(RedisServerType, std::string_view, unsigned) const { return {}; }

  // HGETALL KEY, and the EVAL SCRIPT 1 KEY ... of a counter and of a hash with a time to live.
  ruvo::result<ruvo::reply> command(RedisServerType, ruvo::words_view words) const {
    if (data->down) {
      return ruvo::failure(RUVO_ERR_FAILED);
    }
    if (words[0] == "HGETALL") {
      std::vector<ruvo::reply> all;
      for (const auto& [field, value] : data->hashes[std::string(words[1])]) {
        all.push_back(ruvo::reply::of_text(field));
        all.push_back(ruvo::reply::of_text(value));
      }
      return ruvo::reply::of_array(std::move(all));
    }
    const std::string key(words[3]);
    if (words[1].find("INCRBY") != std::string_view::npos) {
      return ruvo::reply::of_integer(++data->counters[key]);
    }
    for (std::size_t i = 5; i < words.size(); i += 2) {
      data->hashes[key][std::string(words[i])] = words[i + 1];
    }
    return ruvo::reply::of_integer(1);
  }
};

int failures = 0;

void expect(const std::string& said, const std::string& expected) {
  if (said != expected) {
    std::cerr << "said:     " << said << "\nexpected: " << expected << '\n';
    ++failures;
  }
}

}  // namespace

int main() {
  memory data;
  const login_service service{ruvo::basic_pool(eTempServer, memory_backend{&data})};
  expect(service.answer("who ada"), "not logged in");
  expect(service.answer("login ada"), "welcome ada");
  expect(service.answer("who ada"), "ada is a guest");
  expect(service.answer("logout ada"), "goodbye");
  expect(service.answer("who ada"), "not logged in");

  expect(service.answer("login ada"), "welcome ada");
  expect(service.answer("login ada"), "welcome ada");
  expect(service.answer("login ada"), "too many logins");
  expect(service.answer("login bob"), "welcome bob");

  data.down = true;
  expect(service.answer("login eve"), "try again later: failed");
  expect(service.answer("who bob"), "try again later: failed");
  expect(service.answer("logout bob"), "try again later: failed");
  data.down = false;
  expect(service.answer("who eve"), "not logged in");
  expect(service.answer("login"), "say: login USER, who USER, logout USER");
  return failures == 0 ? 0 : 1;
}
