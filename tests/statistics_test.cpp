// The statistics file: what the library counts in it, and what a reader finds.
#include "statistics.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <barrier>
#include <thread>

#include "host.h"
#include "server_pool.h"
#include "stats_copy.h"

namespace {

class Statistics : public testing::Test {
 protected:
  Statistics() {
    temp_.servers_.emplace_back().addr_ = {"127.0.0.1", 6379};
    temp_.servers_.emplace_back().addr_ = {std::string(300, 'n'), 70000};
    temp_.failure_limit_ = 3;
    temp_.retry_timeout_ = 7;
    personality_.servers_.emplace_back().addr_ = {"10.0.0.1", 1};
    personality_.auto_eject_ = false;
    EXPECT_TRUE(begin(path_));
  }

  bool begin(const std::string& path) {
    const std::array pools{statistics_file::counted_pool{eTempServer, temp_, 4},
                           statistics_file::counted_pool{ePersistServer, persist_, 4},
                           statistics_file::counted_pool{ePersonalityServer, personality_, 4}};
    return file_.begin(path, pools);
  }

  std::size_t files() const {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator(dir_.path("")), {}));
  }

  TempDir dir_;
  const std::string path_ = dir_.path("stats");
  server_pool temp_;
  server_pool persist_;
  server_pool personality_;
  statistics_file file_;
};

TEST(StatisticsBuckets, FollowEachOtherFromAMicrosecondToAHundredSeconds) {
  std::uint64_t before = 0;
  for (std::uint32_t bucket = 0; bucket + 1 < RUVO_STATS_BUCKETS; ++bucket) {
    const std::uint64_t limit = ruvo_stats_bucket_limit(bucket);
    EXPECT_EQ(ruvo_stats_bucket(limit), bucket);
    EXPECT_EQ(ruvo_stats_bucket(limit + 1), bucket + 1);
    if (bucket > 0) {
      EXPECT_LE((limit - before) * 8, before);  // at most an eighth of its lower bound wide
    }
    before = limit;
  }
  EXPECT_LT(ruvo_stats_bucket_limit(0), 1'000U);
  EXPECT_GT(before, 100'000'000'000U);
  EXPECT_EQ(ruvo_stats_bucket(0), 0U);
  EXPECT_EQ(ruvo_stats_bucket(UINT64_MAX), RUVO_STATS_BUCKETS - 1);
  EXPECT_EQ(ruvo_stats_bucket_limit(RUVO_STATS_BUCKETS - 1), UINT64_MAX);
}

TEST(StatisticsBuckets, GivePercentiles) {
  std::vector<std::uint64_t> counts(RUVO_STATS_BUCKETS);
  EXPECT_EQ(ruvo_stats_percentile(counts.data(), 50), 0U);
  counts[ruvo_stats_bucket(100'000)] = 98;
  counts[ruvo_stats_bucket(5'000'000)] = 2;
  const std::uint64_t fast = ruvo_stats_bucket_limit(ruvo_stats_bucket(100'000));
  const std::uint64_t slow = ruvo_stats_bucket_limit(ruvo_stats_bucket(5'000'000));
  EXPECT_EQ(ruvo_stats_percentile(counts.data(), 0), fast);
  EXPECT_EQ(ruvo_stats_percentile(counts.data(), 98), fast);
  EXPECT_EQ(ruvo_stats_percentile(counts.data(), 99), slow);
  EXPECT_EQ(ruvo_stats_percentile(counts.data(), 100), slow);
}

TEST_F(Statistics, AReaderFindsWhatTheHostCounts) {
  server_stats* const first = file_.server(0, 0);
  server_stats* const last = file_.server(2, 0);
  for (int i = 0; i < 5; ++i) {
    count(first, &server_counters::calls);
  }
  count(first, &server_counters::replies);
  count(first, &server_counters::no_replies);
  note_failures(first, 3, 4'000'000'000);
  note_failures(last, 3, 0);
  waiting_mark waiting;
  waiting.begin(first);
  {
    waiting_mark abandoned;
    abandoned.begin(first);
    waiting_mark ended;
    ended.begin(first);
    std::jthread([&ended] { ended.end(); }).join();
  }
  const StatsCopy copy(path_);
  ASSERT_EQ(copy.error(), "");
  EXPECT_NEAR(static_cast<double>(copy.head().start_time) / 1e9,
              static_cast<double>(std::time(nullptr)), 60);
  ASSERT_EQ(copy.head().pool_count, 3U);
  ASSERT_EQ(copy.head().server_count, 3U);
  EXPECT_STREQ(copy.pool(0).name, "temp");
  EXPECT_STREQ(copy.pool(1).name, "persist");
  EXPECT_EQ(copy.pool(1).server_count, 0U);
  EXPECT_STREQ(copy.pool(2).name, "personality");
  EXPECT_EQ(copy.pool(2).first_server, 2U);
  EXPECT_EQ(copy.pool(0).connections, 4U);
  EXPECT_EQ(copy.pool(0).retry_timeout, 7);
  EXPECT_EQ(std::string(copy.server(1).address), std::string(RUVO_STATS_ADDRESS_SIZE - 1, 'n'));
  EXPECT_EQ(copy.server(1).position, 1U);
  EXPECT_EQ(copy.server(2).pool, 2U);
  EXPECT_EQ(copy.sums_of_server(0).waiting, 1U);
  EXPECT_EQ(copy.in_flight(0), 2U);
  const auto state = [&copy](std::uint32_t number, std::int64_t now) {
    const server_stats& server = copy.server(number);
    return ruvo_stats_server_state(&copy.pool(server.pool), &server, now);
  };
  EXPECT_EQ(state(0, 3'999'999'999), RUVO_SERVER_EJECTED);
  EXPECT_EQ(state(0, 4'000'000'000), RUVO_SERVER_RETRY_DUE);
  EXPECT_EQ(state(1, 0), RUVO_SERVER_HEALTHY);
  EXPECT_EQ(state(2, 0), RUVO_SERVER_FAILING);  // of a pool that ejects no server
}

// The other results are in the test of a host's calls.
TEST_F(Statistics, FailedCallsAreCountedByCause) {
  const auto calls = [this](ruvo_stats_result result) {
    return StatsCopy(path_).sums_of_pool(0).results[result];
  };
  call_timer(file_.pool(0)).end(RUVO_ERR_NO_MEMORY);
  EXPECT_EQ(calls(RUVO_STATS_NO_MEMORY), 1U);
  note_cause(RUVO_STATS_NO_SERVER);
  for (const int code : {RUVO_ERR_FAILED, RUVO_ERR_FAILED, RUVO_ERR_NO_REPLY}) {
    call_timer(file_.pool(0)).end(code);
    EXPECT_EQ(calls(RUVO_STATS_NO_SERVER), 1U);  // a cause counts once
  }
  EXPECT_EQ(calls(RUVO_STATS_OTHER_FAILURE), 2U);
  note_cause(RUVO_STATS_MAY_HAVE_RUN);
  call_timer(file_.pool(0)).end(nullptr);  // a raw command
  EXPECT_EQ(calls(RUVO_STATS_MAY_HAVE_RUN), 1U);
}

TEST_F(Statistics, ABadFileIsReported) {
  const StatsCopy good(path_);
  using head = ruvo_stats_header;
  const std::size_t pools = sizeof(head);
  const std::size_t servers = pools + 3 * sizeof(pool_stats);
  const std::pair<StatsCopy, std::string> cases[] = {
      {good, ""},
      {good.cut(0), "not a statistics file"},
      {good.with(0, 0), "not a statistics file"},
      {good.with(offsetof(head, version), 2), "another version"},
      {good.with(offsetof(head, version), 2).cut(12), "another version"},
      {good.cut(sizeof(head) - 1), "shorter than its header"},
      {good.with(offsetof(head, state), RUVO_STATS_INCOMPLETE), "not complete"},
      {good.with(offsetof(head, pool_size), 1024), "other sizes"},
      {good.with(offsetof(head, server_size), sizeof(server_stats) + 1), "other sizes"},
      {good.with(offsetof(head, header_size), 0), "other sizes"},
      {good.with(offsetof(head, bucket_count), 225), "other sizes"},
      {good.with(offsetof(head, lane_count), 63), "other sizes"},
      {good.with(offsetof(head, header_size), 0xfffffff8), "shorter than its header s"},
      {good.with(offsetof(head, pool_count), 0xffffffff), "shorter than its header s"},
      {good.with(offsetof(head, server_count), 4), "shorter than its header says"},
      {good.cut(good.size() - 1), "shorter than its header says"},
      {good.with(pools + offsetof(pool_stats, server_count), 4), "damaged"},
      {good.with(pools + offsetof(pool_stats, first_server), 0xffffffff), "damaged"},
      {good.with(servers + offsetof(server_stats, pool), 3), "damaged"},
  };
  for (const auto& [file, error_part] : cases) {
    EXPECT_NE(file.error().find(error_part), std::string::npos) << error_part << file.error();
    EXPECT_EQ(file.error().empty(), error_part.empty()) << file.error();
  }
  for (std::size_t length = 0; length < good.size(); length += 997) {
    EXPECT_NE(good.cut(length).error(), "") << length;
  }
}

// As a later library writes it.
TEST_F(Statistics, LongerRecordsAreRead) {
  std::ifstream file(path_, std::ios::binary);
  std::string bytes(std::istreambuf_iterator<char>(file), {});
  const std::string longer(64, '\xff');
  for (std::size_t i = 3; i > 0; --i) {
    bytes.insert(bytes.size() - (i - 1) * sizeof(server_stats), longer);
  }
  const auto server_size = static_cast<std::uint32_t>(sizeof(server_stats) + longer.size());
  const StatsCopy copy = StatsCopy(dir_.write("longer", bytes))
                             .with(offsetof(ruvo_stats_header, server_size), server_size);
  ASSERT_EQ(copy.error(), "");
  EXPECT_STREQ(copy.server(2).address, "10.0.0.1");
}

TEST_F(Statistics, AnotherStartBeginsANewFile) {
  count(file_.server(0, 0), &server_counters::calls);
  std::filesystem::create_hard_link(path_, dir_.path("old"));
  ASSERT_TRUE(begin(path_));
  const StatsCopy old(dir_.path("old"));
  EXPECT_EQ(old.head().state, static_cast<std::uint32_t>(RUVO_STATS_ENDED));
  EXPECT_EQ(old.sums_of_server(0).calls, 1U);
  const StatsCopy fresh(path_);
  EXPECT_EQ(fresh.head().state, static_cast<std::uint32_t>(RUVO_STATS_LIVE));
  EXPECT_EQ(fresh.sums_of_server(0).calls, 0U);
  EXPECT_EQ(files(), 2U);
}

TEST_F(Statistics, AFailedCreationIsLogged) {
  const LogCapture log(BaseLib::Logger::ERROR);
  ASSERT_TRUE(begin(dir_.path("%p.%p")));
  const std::string id = std::to_string(getpid());
  std::filesystem::rename(dir_.path(id + "." + id), path_);
  std::filesystem::create_directory(dir_.path("folder"));
  for (const auto& [path, error] : {std::pair(dir_.path("none/stats"), "No such file or directory"),
                                    std::pair(dir_.path("folder"), "Is a directory"),
                                    std::pair(dir_.path("stats/x"), "Not a directory")}) {
    EXPECT_FALSE(begin(path));
    EXPECT_EQ(log.count(BaseLib::Logger::ERROR, "ruvo_redis::init | cannot make stats_file " +
                                                    path + ": " + error + ", left out"),
              1);
  }
  EXPECT_EQ(files(), 2U);
  EXPECT_EQ(file_.pool(0), nullptr);
  EXPECT_EQ(file_.server(0, 0), nullptr);
}

// More threads than lanes, twice: a lane is passed on with its counts.
TEST_F(Statistics, EveryThreadIsCounted) {
  constexpr int threads = 2 * RUVO_STATS_LANES;
  constexpr int calls = 1'000;
  const call_timer own(file_.pool(0));  // takes a lane for this thread, and leaves it empty
  for (int round = 0; round < 2; ++round) {
    std::barrier all(threads);
    std::vector<std::jthread> callers;
    for (int i = 0; i < threads; ++i) {
      callers.emplace_back([&] {
        call_timer timer(file_.pool(0));
        all.arrive_and_wait();
        for (int call = 0; call < calls; ++call) {
          waiting_mark mark;
          mark.begin(file_.server(0, 1));
          count(file_.server(0, 1), &server_counters::retries);
        }
        timer.end(RUVO_OK);
      });
    }
  }
  const StatsCopy copy(path_);
  EXPECT_EQ(copy.sums_of_server(1).retries, 2U * threads * calls);
  EXPECT_EQ(copy.sums_of_server(1).waiting, 0U);
  EXPECT_EQ(copy.sums_of_pool(0).results[RUVO_STATS_OK], 2U * threads);
  int used = 0;
  for (const server_counters& lane : copy.server(1).lanes) {
    used += lane.retries > 0 ? 1 : 0;
  }
  EXPECT_EQ(used, static_cast<int>(RUVO_STATS_LANES) - 1);
}

TEST_F(Statistics, AForkedChildCountsIntoTheSameFile) {
  const auto count_calls = [this] {
    for (int i = 0; i < 10'000; ++i) {
      call_timer timer(file_.pool(0));
      count(file_.server(0, 0), &server_counters::calls);
      timer.end(RUVO_OK);
    }
  };
  count_calls();
  const pid_t child = fork();
  if (child == 0) {
    std::jthread(count_calls).join();
    count_calls();
    file_.end();
    _exit(0);
  }
  std::jthread other(count_calls);
  count_calls();
  other.join();
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  const StatsCopy copy(path_);
  EXPECT_EQ(copy.head().state, static_cast<std::uint32_t>(RUVO_STATS_LIVE));
  EXPECT_EQ(copy.sums_of_server(0).calls, 50'000U);
  EXPECT_EQ(copy.sums_of_pool(0).results[RUVO_STATS_OK], 50'000U);
}

}  // namespace
