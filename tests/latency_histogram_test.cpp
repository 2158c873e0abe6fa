#include "latency_histogram.h"

#include <gtest/gtest.h>

namespace {

TEST(LatencyHistogram, KnowsPercentilesToOnePercent) {
  LatencyHistogram all;
  LatencyHistogram half;
  for (std::uint64_t ns = 1; ns <= 100000; ++ns) {
    (ns % 2 == 0 ? all : half).record(ns);
  }
  all.add(half);
  EXPECT_EQ(all.total(), 100000U);
  EXPECT_DOUBLE_EQ(all.mean(), 50000.5);
  for (const double percent : {0.01, 1.0, 50.0, 90.0, 99.0, 99.9, 100.0}) {
    const auto exact = percent * 1000;
    EXPECT_GE(static_cast<double>(all.percentile(percent)), exact) << percent;
    EXPECT_LE(static_cast<double>(all.percentile(percent)), exact * 1.01 + 1) << percent;
  }
  EXPECT_EQ(all.percentile(100), 100000U);
  EXPECT_EQ(all.count_between(1024, 2048), 1024U);
  all.record(std::uint64_t{1} << 50U);
  EXPECT_EQ(all.max(), std::uint64_t{1} << 50U);
  EXPECT_EQ(LatencyHistogram().percentile(50), 0U);
}

}  // namespace
