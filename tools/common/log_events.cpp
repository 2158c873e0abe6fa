#include "log_events.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <initializer_list>
#include <optional>

namespace {

using F = Field;
using K = EventKind;

constexpr int words_of_head = 5;
constexpr int level_word = 3;  // counted from 0
constexpr std::array<std::string_view, 6> level_names{"TRACE", "DEBUG", "INFO",
                                                      "WARN",  "ERROR", "FATAL"};

struct Row {
  K kind;
  std::string_view format;  // as in the library; %s is any text, other conversions are numbers
  std::vector<F> fields;    // of its conversions, in order
};

// A text ends at the first match of the rest of its format; the last one ends with the line.
// clang-format off
const std::vector<Row>& table() {
  static const std::vector<Row> rows{
      {K::configuration_path, "ruvo_redis::init_config redis_cfg_path = %s", {F::path}},
      {K::configured_servers, "t_par_val: %s", {F::temp_servers}},
      {K::configured_servers, "p_par_val: %s", {F::persist_servers}},
      {K::timeouts, "ruvo_worker::init | get timeout cfg, connect_timeout:%d (ms), socket_timeout:%d (ms)", {F::connect_timeout, F::socket_timeout}},
      {K::options, "ruvo_redis::init | auto_pipelining:%s, eject_silent_servers:%s, try_ejected_servers:%s, log_limit:%d, call_timeout:%d (ms)", {F::auto_pipelining, F::eject_silent_servers, F::try_ejected_servers, F::log_limit, F::call_timeout}},
      {K::options, "ruvo_redis::init | raw_commands_stay_in_pool:%s, start_without_servers:%s, failover_replies:%s, send_once:%s, wait_for_servers:%s, stats_file:%s, slow_call_log:%d (ms)", {F::raw_commands_stay_in_pool, F::start_without_servers, F::failover_replies, F::send_once, F::wait_for_servers, F::stats_file, F::slow_call_log}},
      {K::addresses, "ruvo_redis::init | temp_server addr = %s, persist_server addr = %s.", {F::temp_servers, F::persist_servers}},
      {K::addresses, "ruvo_redis::init | temp_server addr = %s", {F::temp_servers}},  // cut at the end of the log's buffer
      {K::invalid_address, "ruvo_redis::init_server_pool | invalid server addr:%s", {F::error}},
      {K::pool_settings, "ruvo_redis::init_server_pool | server: conn_num:%u, auto_eject:%s, failure_limit:%u, retry_timeout:%d (s)", {F::connections, F::auto_eject, F::failure_limit, F::retry_timeout}},
      {K::connected, "ruvo_redis::init_server_pool | connect to proxy: %s port:%d succeeded.", {F::ip, F::port}},
      {K::connect_failed, "ruvo_redis::init_server_pool | connect to node %s port:%d failed, error code : %s.", {F::ip, F::port, F::error}},
      {K::auth_refused, "ruvo_redis::init_server_pool | failed to authenticate redis, error passwd, redis_ip = %s, redis_port = %d, passwd = %s", {F::ip, F::port, F::password}},
      {K::pool_ready, "ruvo_redis::init | %s server pool init success", {F::pool}},
      {K::pool_failed, "ruvo_redis::init | %s server pool init failed, %d", {F::pool, F::code}},

      {K::server_considered, "ruvo_redis::get_redis_node | addr:%s port:%d", {F::ip, F::port}},
      {K::server_considered, "ruvo_redis::get_server_node | try next server:%s,port:%d", {F::ip, F::port}},
      {K::connection_chosen, "ruvo_redis::get_conn | connection index: %u/%u", {F::connection, F::connections}},
      {K::no_connection, "ruvo_redis::get_conn | no connection %u on server %s port:%d", {F::connection, F::ip, F::port}},
      {K::skipped, "ruvo_redis::is_server_valid | server,ip:%s port:%d invalid, failure count:%d, retry after %ld seconds", {F::ip, F::port, F::failures, F::seconds}},
      {K::retry, "ruvo_redis::is_server_valid | server, ip:%s port:%d start retry", {F::ip, F::port}},
      {K::all_servers_invalid, "ruvo_redis::get_server_node | all servers invalid", {}},
      {K::no_server_available, "ruvo_redis::%s | can not find an available server", {F::origin}},

      {K::connection_broken, "ruvo_redis::%s | key:%s, connection err,try reset,ret:%d, err:%s", {F::origin, F::key, F::code, F::error}},
      {K::rebuild, "ruvo_redis::reset_connection | reset connection,ip:%s port:%d", {F::ip, F::port}},
      {K::rebuild_failed, "ruvo_redis::reset_connection | reconnect to server %s port:%d failed, error code is %s.", {F::ip, F::port, F::error}},
      {K::visit_failed, "ruvo_redis::%s | key:%s, null reply and reset connection to server %s port:%d failed.", {F::origin, F::key, F::ip, F::port}},
      {K::failure_counted, "ruvo_redis::update_server_failed | server, ip:%s port:%d failure count:%d", {F::ip, F::port, F::failures}},
      {K::error_reply, "ruvo_redis::do_exec_command | exec key:%s failed, redis reply str:%s.", {F::key, F::error}},
      {K::nil_reply, "ruvo_redis::do_exec_command | redis key:%s, persistence:%s, redis reply is nil", {F::key, F::is_persistent}},
      {K::operation_done, "%s | do_exec_command success!", {F::origin}},
      {K::call_timed_out, "ruvo_redis::%s | key:%s, call time-out of %d ms has passed", {F::origin, F::key, F::call_timeout}},
      {K::not_sent_again, "ruvo_redis::%s | key:%s, not sent again: it may have run", {F::origin, F::key}},

      {K::lines_suppressed, "ruvo_redis::log_limit | %llu lines like the next one were kept back", {F::lines}},
  };
  return rows;
}
// clang-format on

std::size_t digits_at_start(std::string_view text) {
  const std::size_t sign = text.starts_with('-') ? 1 : 0;
  const std::size_t end = std::min(text.find_first_not_of("0123456789", sign), text.size());
  return end > sign ? end : 0;
}

// The values of a format's conversions in a text that matches the format.
std::optional<std::vector<std::string_view>> match(std::string_view format, std::string_view text) {
  std::vector<std::string_view> values;
  for (;;) {
    const std::size_t conversion = std::min(format.find('%'), format.size());
    if (!text.starts_with(format.substr(0, conversion))) {
      return std::nullopt;
    }
    text.remove_prefix(conversion);
    format.remove_prefix(conversion);
    if (format.empty()) {
      return text.empty() ? std::optional(values) : std::nullopt;
    }
    const std::size_t letter = format.find_first_of("sdu");
    const bool is_text = format[letter] == 's';
    format.remove_prefix(letter + 1);
    std::size_t length = digits_at_start(text);
    if (is_text) {
      const std::string_view next = format.substr(0, format.find('%'));
      const bool is_last = next.size() == format.size();
      length = !is_last               ? text.find(next)
               : text.ends_with(next) ? text.size() - next.size()
                                      : std::string_view::npos;
    }
    if (length == std::string_view::npos || (!is_text && length == 0)) {
      return std::nullopt;
    }
    values.push_back(text.substr(0, length));
    text.remove_prefix(length);
  }
}

BaseLib::Logger::LogLevel level_in(std::string_view head) {
  for (int word = 0; word < level_word; ++word) {
    head.remove_prefix(std::min(head.size(), head.find(' ') + 1));
  }
  const auto* const name =
      std::find(level_names.begin(), level_names.end(), head.substr(0, head.find(' ')));
  return name != level_names.end()
             ? static_cast<BaseLib::Logger::LogLevel>(name - level_names.begin())
             : BaseLib::Logger::INFO;
}

}  // namespace

LogLine cut_line(std::string_view line) {
  if (line.ends_with('\n')) {
    line.remove_suffix(1);
  }
  std::size_t end = 0;
  for (int word = 0; word < words_of_head && end != std::string_view::npos; ++word) {
    const std::size_t blank = line.find(' ', end);
    end = blank == std::string_view::npos ? blank : blank + 1;
  }
  end = std::min(end, line.size());
  return {line.substr(0, end), line.substr(end)};
}

std::string LogEvent::field(Field name) const {
  const auto found = std::find_if(fields.begin(), fields.end(),
                                  [name](const auto& one) { return one.first == name; });
  return found != fields.end() ? found->second : "";
}

long long LogEvent::number(Field name) const {
  long long value = 0;
  const std::string digits = field(name);
  std::from_chars(digits.data(), digits.data() + digits.size(), value);
  return value;
}

std::string LogEvent::server() const {
  const std::string ip = field(F::ip);
  return ip.empty() ? "" : ip + ":" + field(F::port);
}

LogEvent read_event(std::string_view line) {
  const LogLine parts = cut_line(line);
  LogEvent event;
  event.level = level_in(parts.head);
  event.text = parts.text;
  // Some texts end with a newline of their own.
  const std::string_view text = parts.text.substr(0, parts.text.find_last_not_of('\n') + 1);
  for (const Row& row : table()) {
    if (const auto values = match(row.format, text)) {
      event.kind = row.kind;
      for (std::size_t i = 0; i < values->size(); ++i) {
        event.fields.emplace_back(row.fields.at(i), (*values)[i]);
      }
      break;
    }
  }
  return event;
}

bool reports_fault(const LogEvent& event) {
  return event.kind != K::configuration_path && event.kind != K::configured_servers;
}
