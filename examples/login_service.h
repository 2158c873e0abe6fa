// What login_host answers: a user logs in and gets a session, a few times a minute at most.
#ifndef LOGIN_SERVICE_H
#define LOGIN_SERVICE_H

#include <chrono>
#include <sstream>
#include <string>

#include "rate_limiter.h"
#include "session_store.h"

template <typename Pool>
class login_service {
 public:
  static constexpr long long max_logins = 3;  // in a minute

  explicit login_service(const Pool& pool)
      : sessions_(pool, std::chrono::minutes(30)),
        limiter_(pool, max_logins, std::chrono::minutes(1)) {}

  // The answer to a line: "login USER", "who USER" or "logout USER".
  std::string answer(const std::string& line) const {
    std::istringstream words(line);
    std::string command;
    std::string user;
    words >> command >> user;
    return command == "login" && !user.empty()    ? login(user)
           : command == "who" && !user.empty()    ? who(user)
           : command == "logout" && !user.empty() ? result_text(sessions_.end(user), "goodbye")
                                                  : "say: login USER, who USER, logout USER";
  }

 private:
  std::string login(const std::string& user) const {
    const auto allowed = limiter_.allow(user);
    if (allowed.no()) {
      return "too many logins";
    }
    // If Redis cannot count the attempt, the login is refused.
    return allowed.failed() ? result_text(allowed.why(), "")
                            : result_text(sessions_.save(user, {{"name", user}, {"role", "guest"}}),
                                          "welcome " + user);
  }

  std::string who(const std::string& user) const {
    const auto session = sessions_.load(user);
    return session.absent() ? "not logged in"
           : !session       ? result_text(session.why(), "")
                            : session->at("name") + " is a " + session->at("role");
  }

  static std::string result_text(const ruvo::result<void>& done, const std::string& good) {
    return done ? good : "try again later: " + done.error().message();
  }

  session_store<Pool> sessions_;
  rate_limiter<Pool> limiter_;
};

#endif
