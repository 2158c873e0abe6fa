// Counts latencies in buckets whose width grows with the value: each power of two is divided into
// 128, so that any percentile is known to within 1% with a fixed and small memory.
#ifndef RUVO_TOOLS_COMMON_LATENCY_HISTOGRAM_H
#define RUVO_TOOLS_COMMON_LATENCY_HISTOGRAM_H

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>

class LatencyHistogram {
 public:
  void record(std::uint64_t ns) {
    ++counts_[index_of(ns)];
    ++total_;
    sum_ += ns;
    min_ = std::min(min_, ns);
    max_ = std::max(max_, ns);
  }

  void add(const LatencyHistogram& other) {
    for (std::size_t i = 0; i < counts_.size(); ++i) {
      counts_[i] += other.counts_[i];
    }
    total_ += other.total_;
    sum_ += other.sum_;
    min_ = std::min(min_, other.min_);
    max_ = std::max(max_, other.max_);
  }

  std::uint64_t total() const { return total_; }
  std::uint64_t min() const { return total_ > 0 ? min_ : 0; }
  std::uint64_t max() const { return max_; }
  double mean() const {
    return total_ > 0 ? static_cast<double>(sum_) / static_cast<double>(total_) : 0;
  }

  // The latency that `percent` percent of the records do not exceed: the end of its bucket.
  std::uint64_t percentile(double percent) const {
    const auto wanted = static_cast<std::uint64_t>(
        std::ceil(static_cast<double>(total_) * std::clamp(percent, 0.0, 100.0) / 100));
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < counts_.size(); ++i) {
      seen += counts_[i];
      if (seen >= std::max<std::uint64_t>(wanted, 1)) {
        return std::min(end_of(i), max_);
      }
    }
    return max_;
  }

  // Records from `from` to below `to`, both powers of two.
  std::uint64_t count_between(std::uint64_t from, std::uint64_t to) const {
    std::uint64_t count = 0;
    const std::size_t end = to >> max_bits != 0 ? counts_.size() : index_of(to);
    for (std::size_t i = index_of(from); i < end; ++i) {
      count += counts_[i];
    }
    return count;
  }

 private:
  static constexpr unsigned sub_bits = 7;
  static constexpr std::uint64_t sub_buckets = std::uint64_t{1} << sub_bits;
  static constexpr unsigned max_bits = 40;  // 18 minutes; a longer latency counts as that

  // Below 128 every value has a bucket; above, the leading bit chooses the group and the next seven
  // bits the bucket in it.
  static std::size_t index_of(std::uint64_t ns) {
    ns = std::min(ns, (std::uint64_t{1} << max_bits) - 1);
    if (ns < sub_buckets) {
      return ns;
    }
    const unsigned shift = static_cast<unsigned>(std::bit_width(ns)) - 1 - sub_bits;
    return (shift + 1) * sub_buckets + ((ns >> shift) - sub_buckets);
  }

  static std::uint64_t end_of(std::size_t index) {
    if (index < sub_buckets) {
      return index;
    }
    const std::uint64_t shift = index / sub_buckets - 1;
    return ((index % sub_buckets + sub_buckets + 1) << shift) - 1;
  }

  std::array<std::uint64_t, (max_bits - sub_bits + 1) * sub_buckets> counts_{};
  std::uint64_t total_ = 0;
  std::uint64_t sum_ = 0;
  std::uint64_t min_ = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t max_ = 0;
};

#endif
