// The session store and the rate limiter of examples/, against a real Redis. login_test.cpp there
// tests the service that uses them.
#include <gtest/gtest.h>

#include <optional>

#include "host.h"
#include "login_service.h"
#include "servers.h"

namespace {

using namespace std::chrono_literals;

class Example : public testing::Test {
 protected:
  Example() {
    const QuietConsole quiet;
    library_.emplace(config_.path());
    EXPECT_TRUE(*library_);
  }
  double ttl(const std::string& key) const { return std::stod(redis_.ask("ttl " + key)); }

  const LogCapture log_{BaseLib::Logger::ERROR};
  RedisServer redis_;
  HostConfig config_{all_pools_at(redis_.addr())};
  std::optional<ruvo::library> library_;
  ruvo::pool pool_{eTempServer};
};

TEST_F(Example, SessionsLiveAsLongAsTheyAreUsed) {
  const session_store<ruvo::pool> sessions(pool_, 100s);
  EXPECT_TRUE(sessions.load("9").absent());
  const session_store<ruvo::pool>::session session{{"user", "7"}, {"note", std::string("\0\n", 2)}};
  ASSERT_TRUE(sessions.save("9", session));
  EXPECT_NEAR(ttl("session:9"), 99, 1);
  redis_.ask("expire session:9 10");
  EXPECT_EQ(sessions.load("9").value(), session);
  EXPECT_NEAR(ttl("session:9"), 99, 1);
  EXPECT_TRUE(sessions.end("9"));
  EXPECT_TRUE(sessions.load("9").absent());

  redis_.ask("set session:8 text");
  EXPECT_EQ(sessions.load("8").reply_text().substr(0, 9), "WRONGTYPE");
  EXPECT_FALSE(sessions.save("8", session));
}

TEST_F(Example, ClientsAreLimitedUntilTheirWindowEnds) {
  const rate_limiter<ruvo::pool> limiter(pool_, 2, 100500ms);
  EXPECT_EQ(limiter.wait("ada").value(), 0ms);
  EXPECT_TRUE(limiter.allow("ada").yes());
  EXPECT_TRUE(limiter.allow("ada").yes());
  EXPECT_TRUE(limiter.allow("ada").no());
  EXPECT_TRUE(limiter.allow("bob").yes());
  EXPECT_NEAR(static_cast<double>(limiter.wait("ada")->count()), 100000, 501);
  redis_.ask("del rate:ada");
  EXPECT_TRUE(limiter.allow("ada").yes());

  redis_.kill();
  EXPECT_TRUE(limiter.allow("ada").failed());
}

}  // namespace
