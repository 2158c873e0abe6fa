#include "sides.h"

#include <ruvo/log_io.h>
#include <ruvo/ruvo.h>
#include <stream_log/logger.h>

namespace {

Log_Thread_Mutex log_lock;
Log_IO_FILE log_sink;

void to_file(BaseLib::Logger::LogLevel, const char* line, std::size_t length) {
  log_sink.mutex()->acquire(0);
  log_sink.write(line, length);
  log_sink.mutex()->release();
}

}  // namespace

BareConnections::BareConnections(int port, std::size_t threads, Timeout timeout)
    : contexts_(threads) {
  for (Context& context : contexts_) {
    context = connect_to(port, timeout);
  }
}

HandWrittenPool::HandWrittenPool(int port, std::size_t connections) : connections_(connections) {
  for (Connection& connection : connections_) {
    connection.context = connect_to(port, Timeout::set);
  }
}

void HandWrittenPool::run(const Operation& operation) {
  for (const Command& command : operation.commands) {
    Connection& connection = connections_[next_.fetch_add(1) % connections_.size()];
    Reply reply;
    {
      const std::scoped_lock lock(connection.mutex);
      reply = run_command(command, *connection.context);
    }
    copy_result(command.copied, *reply);
  }
}

Library::Library(const std::string& addr, const std::string& other_pools, std::size_t connections,
                 Pipelining pipelining)
    : config_(
          "connect_timeout = 10000\nsocket_timeout = " + std::to_string(timeout_seconds * 1000) +
              "\n" + (pipelining == Pipelining::on ? "auto_pipelining = true\n" : "") +
              pools_at(addr, other_pools, other_pools),
          "p_connect_num = " + std::to_string(connections)) {
  using BaseLib::Logger;
  const Logger::LogLevel level = Logger::logLevel();
  Logger::setLogLevel(Logger::FATAL);  // start-up reports its settings at ERROR
  library_.emplace(config_.path());
  Logger::setLogLevel(level);
}

LogFile::LogFile() {
  log_lock.open(nullptr);
  require(log_sink.open(dir_.path("library.log").c_str(), &log_lock, 0, 0) == 0);
  BaseLib::Logger::setOutput(to_file);
  BaseLib::Logger::setLogLevel(BaseLib::Logger::INFO);
}

LogFile::~LogFile() {
  BaseLib::Logger::setLogLevel(BaseLib::Logger::WARN);
  BaseLib::Logger::setOutput(nullptr);
  log_sink.close();
  log_lock.close(false);
}
