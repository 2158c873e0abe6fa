// A statistics file as a reader copies it.
#ifndef RUVO_TESTS_STATS_COPY_H
#define RUVO_TESTS_STATS_COPY_H

#include <ruvo/stats.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

class StatsCopy {
 public:
  explicit StatsCopy(const std::string& path)
      : size_(std::filesystem::file_size(path)), words_((size_ + 7) / 8) {
    std::ifstream(path, std::ios::binary).read(bytes(), static_cast<std::streamsize>(size_));
  }
  std::size_t size() const { return size_; }

  // Why the file cannot be read; empty: it can.
  std::string error() const {
    const char* text = ruvo_stats_check(words_.data(), size_);
    return text != nullptr ? text : "";
  }
  const ruvo_stats_header& head() const { return *ruvo_stats_head(words_.data()); }
  const ruvo_pool_stats& pool(std::uint32_t number) const {
    return *ruvo_stats_pool(words_.data(), number);
  }
  const ruvo_server_stats& server(std::uint32_t number) const {
    return *ruvo_stats_server(words_.data(), number);
  }
  ruvo_pool_counters sums_of_pool(std::uint32_t number) const {
    ruvo_pool_counters sums;
    ruvo_stats_read_pool(&pool(number), &sums);
    return sums;
  }
  ruvo_server_counters sums_of_server(std::uint32_t number) const {
    ruvo_server_counters sums;
    ruvo_stats_read_server(&server(number), &sums);
    return sums;
  }
  std::uint64_t in_flight(std::uint32_t server) const {
    const ruvo_server_counters sums = sums_of_server(server);
    return ruvo_stats_in_flight(&sums);
  }

  // In memory of exactly this length, rounded up to a word: a sanitizer detects a read beyond it.
  StatsCopy cut(std::size_t length) const {
    StatsCopy copied = *this;
    copied.size_ = length;
    copied.words_.resize((length + 7) / 8);
    copied.words_.shrink_to_fit();
    return copied;
  }
  StatsCopy with(std::size_t offset, std::uint32_t value) const {
    StatsCopy copied = *this;
    std::memcpy(copied.bytes() + offset, &value, sizeof value);
    return copied;
  }

 private:
  char* bytes() { return reinterpret_cast<char*>(words_.data()); }

  std::size_t size_;
  std::vector<std::uint64_t> words_;
};

#endif
