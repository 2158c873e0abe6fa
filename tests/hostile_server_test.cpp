// A server that answers with damaged replies: every call returns in time, with one of its allowed
// results, and leaks nothing (which AddressSanitizer checks).
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <random>

#include "every_operation.h"
#include "host.h"
#include "servers.h"

namespace {

using std::chrono::milliseconds;

// clang-format off
const std::vector<std::string> valid_replies = {
    "+OK\r\n", "-ERR no\r\n", ":1\r\n", ":0\r\n", "$5\r\nhello\r\n", "$0\r\n\r\n", "$-1\r\n", "*-1\r\n", "*0\r\n",
    "*3\r\n$1\r\na\r\n:7\r\n$-1\r\n", "*2\r\n*2\r\n$1\r\na\r\n+b\r\n*1\r\n*1\r\n:3\r\n"};
const std::vector<std::string> lengths = {
    "", "-1", "-2", "+5", "00", "7", "0x10", "1e3", "65536", "1000000", "2147483647", "4294967297", "-2147483649",
    "9223372036854775807", "-9223372036854775808", "99999999999999999999", " 1", std::string(3000, '9')};
// clang-format on

// One damaged reply, and how it is sent. The same seed gives the same one.
class Damage {
 public:
  explicit Damage(std::uint64_t number) : random_(number) {
    bytes = valid_replies[below(valid_replies.size())];
    for (std::size_t count = below(4); count > 0; --count) {
      damage();
    }
    pieces = 1 + below(4);
    closes = below(6) != 0;  // else the client waits for the rest
  }

  std::string bytes;
  std::size_t pieces = 1;
  bool closes = true;

 private:
  std::size_t below(std::size_t limit) { return random_() % limit; }

  void damage() {
    const std::string odd("+-:$*\r\nx%\xFF\0", 11);
    const std::size_t at = below(bytes.size() + 1);
    const std::size_t digit = bytes.find_first_of("0123456789", at);
    const std::size_t kind = below(8);
    if (kind == 0) {
      bytes.resize(at);
    } else if (kind == 1 && digit != std::string::npos) {
      bytes.replace(digit, 1, lengths[below(lengths.size())]);
    } else if (kind == 2 && at < bytes.size()) {
      bytes[at] = static_cast<char>(below(256));
    } else if (kind == 3) {
      bytes.insert(at, bytes);
    } else if (kind == 4) {
      bytes.insert(at, below(200000), odd[below(odd.size())]);
    } else if (kind > 5) {
      bytes.insert(at, 1 + below(9), odd[below(odd.size())]);
    }
    for (std::size_t depth = kind == 5 ? 1 + below(12) : 0; depth > 0; --depth) {
      bytes.insert(0, "*1\r\n");
    }
  }

  std::mt19937_64 random_;
};

TEST(HostileServer, CannotHarmItsCallers) {
  const char* given = std::getenv("RUVO_TEST_SEED");
  const std::uint64_t seed =
      given != nullptr ? std::strtoull(given, nullptr, 10) : std::random_device()();
  std::cout << "to replay: RUVO_TEST_SEED=" << seed << '\n';  // a crash leaves no other trace
  const int descriptors = open_descriptors();
  {
    std::atomic<std::uint64_t> now{seed};
    const ScriptedServer server([&](Peer& peer) {
      for (bool closes = false; !closes && !peer.read_command().empty();) {
        const Damage damage(now);
        const std::size_t size = damage.bytes.size() / damage.pieces + 1;
        for (std::size_t at = 0; at < damage.bytes.size(); at += size) {
          peer.send(damage.bytes.substr(at, size));
        }
        closes = damage.closes;
      }
    });
    const HostConfig config("connect_timeout = 1000\nsocket_timeout = 20\n" +
                            pools_at(server.addr(), server.addr(), server.addr()));
    LogCapture log;  // each line is formatted
    ASSERT_EQ(start(config), RUVO_OK);
    // Six visits of a raw command, or two commands of two each; and a timeout for each piece of a
    // reply.
    const milliseconds bound = 6 * milliseconds(1000 + 4 * 6 * 20);
    for (std::uint64_t number = seed; number < seed + 50; ++number) {
      for (std::size_t i = 0; i < operations.size(); ++i) {
        now = number * operations.size() + i;
        const auto begin = std::chrono::steady_clock::now();
        const int ret = operations[i].call("k");
        const auto took = std::chrono::steady_clock::now() - begin;
        EXPECT_TRUE(operations[i].may_return(ret) && took < bound)
            << operations[i].name << ": " << ret << " " << number;
        log.clear();
      }
    }
    EXPECT_EQ(RUVO_Fini(), RUVO_OK);
  }
  EXPECT_EQ(open_descriptors(), descriptors);
}

}  // namespace
