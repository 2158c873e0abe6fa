// The one reader of the library's log: a line becomes an event.
//
// Only the log says what a call did with the library's servers. Its texts are an interface, so a
// program that reads them needs only a table of them. To read another line, add its row to the
// table in log_events.cpp, with the library's own format.
#ifndef RUVO_TOOLS_COMMON_LOG_EVENTS_H
#define RUVO_TOOLS_COMMON_LOG_EVENTS_H

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "logger.h"

enum class EventKind {
  other,  // a line that no row knows

  // Start-up.
  configuration_path,  // of the second file
  configured_servers,  // an ERROR line without a fault
  timeouts,
  options,  // two lines
  addresses,
  invalid_address,
  pool_settings,
  connected,
  connect_failed,
  auth_refused,  // also while rebuilding
  pool_ready,
  pool_failed,

  // Choice of a server and a connection.
  server_considered,  // the next lines show its result
  connection_chosen,
  no_connection,  // with that number on the server
  skipped,        // the server is ejected
  retry,          // its ejection is over
  all_servers_invalid,
  no_server_available,  // the walk is back at its first server, or used up its visits

  // A visit.
  connection_broken,
  rebuild,  // begins
  rebuild_failed,
  visit_failed,  // the server has not replied and the connection could not be rebuilt
  failure_counted,
  error_reply,
  nil_reply,
  operation_done,
  call_timed_out,
  not_sent_again,  // with send_once

  lines_suppressed
};

enum class Field {
  ip,
  port,
  key,     // of the command
  origin,  // method, or class and method, that the line names
  pool,    // name of a pool
  error,   // in the words of hiredis, of Redis or of the system
  code,    // of hiredis or of the library
  path,
  temp_servers,
  persist_servers,
  password,
  is_persistent,
  failures,
  seconds,  // until an ejected server is retried
  connection,
  connections,
  auto_eject,
  failure_limit,
  retry_timeout,    // seconds
  connect_timeout,  // milliseconds, like the next three
  socket_timeout,
  call_timeout,
  slow_call_log,
  auto_pipelining,
  eject_silent_servers,
  try_ejected_servers,
  log_limit,
  raw_commands_stay_in_pool,
  start_without_servers,
  failover_replies,
  send_once,
  wait_for_servers,
  stats_file,
  lines
};

// A line of the log, cut in two.
struct LogLine {
  std::string_view head;  // time, thread, level, place
  std::string_view text;  // without the newline at its end
};
LogLine cut_line(std::string_view line);

struct LogEvent {
  EventKind kind = EventKind::other;
  BaseLib::Logger::LogLevel level = BaseLib::Logger::INFO;
  std::string text;  // the line without its head
  std::vector<std::pair<Field, std::string>> fields;

  std::string field(Field name) const;  // empty if the line has none
  long long number(Field name) const;   // 0 if the line has none
  std::string server() const;           // "ip:port"; empty if the line names none
};

// Reads a line with its head.
LogEvent read_event(std::string_view line);

// For a line at WARN or above: does it report a fault? The library also writes a few ERROR lines
// that report none.
bool reports_fault(const LogEvent& event);

#endif
