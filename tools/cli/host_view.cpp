#include "host_view.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "console.h"
#include "exit_status.h"

HostView::HostView(std::string path, std::string pool)
    : path_(std::move(path)),
      pool_(std::move(pool)),
      last_(read_statistics(path_)),
      now_(last_),
      counted_(last_),
      seconds_(covered_seconds(last_)) {}

void HostView::read_again() {
  now_.reset();
  try {
    now_ = read_statistics(path_);
  } catch (const Failure&) {
    return;
  }
  counted_ = since(*now_, last_);
  seconds_ = covered_seconds(*now_, last_);
  last_ = *now_;
}

const ServerNumbers* HostView::find(const Statistics& numbers, const std::string& server) const {
  const auto pool = std::ranges::find(numbers.pools, pool_, &PoolNumbers::name);
  if (pool == numbers.pools.end()) {
    return nullptr;
  }
  const auto found = std::ranges::find(pool->servers, server, &ServerNumbers::name);
  return found != pool->servers.end() ? &*found : nullptr;
}

std::string HostView::text_of(const std::string& server) const {
  if (!now_) {
    return "host: its file cannot be read";
  }
  const ServerNumbers* const now = find(*now_, server);
  if (now == nullptr) {
    return "host: does not list this server";
  }
  const double calls =
      static_cast<double>(find(counted_, server)->count(&ruvo_server_counters::calls));
  return format("host: %s  calls/s %.1f  in flight %llu  waiting %llu",
                state_text(*now, now_->read_time).c_str(), calls / seconds_,
                static_cast<unsigned long long>(now->in_flight),
                static_cast<unsigned long long>(now->waiting));
}

nlohmann::json HostView::json_of(const std::string& server) const {
  const ServerNumbers* const now = now_ ? find(*now_, server) : nullptr;
  return now != nullptr ? to_json(*now, *find(counted_, server), seconds_)
                        : nlohmann::json(nullptr);
}
