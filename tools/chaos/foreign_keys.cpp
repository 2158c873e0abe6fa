#include "foreign_keys.h"

#include <set>
#include <stdexcept>
#include <string_view>

#include "hiredis_owners.h"
#include "settings.h"
#include "workload.h"

namespace {

std::string_view text_of(const redisReply& reply) { return {reply.str, reply.len}; }

// One server, asked directly. Throws if it does not answer a question.
class Server {
 public:
  Server(const std::string& addr, const Settings& settings, const std::string& password)
      : addr_(addr), context_(connect(addr, settings)) {
    if (context_ == nullptr || context_->err != 0) {
      refuse_hidden_keys(context_ == nullptr ? "no memory" : context_->errstr);
    }
    redisSetTimeout(context_.get(), to_timeval(settings.socket_timeout_ms));
    if (!password.empty()) {
      ask(REDIS_REPLY_STATUS, "AUTH %s", password.c_str());
    }
  }

  void refuse_foreign_keys() {
    const Reply keyspace = ask(REDIS_REPLY_STRING, "INFO keyspace");
    const std::string_view databases = text_of(*keyspace);  // "# Keyspace\r\ndb0:keys=2,..."
    for (std::size_t at = 0; (at = databases.find("\ndb", at)) != std::string_view::npos; ++at) {
      const std::string_view name = databases.substr(at + 1, databases.find(':', at) - at - 1);
      if (name != "db0") {  // where the library stores its keys
        refuse("has keys in " + std::string(name));
      }
    }
    std::string cursor = "0";
    do {
      const Reply scanned = ask(REDIS_REPLY_ARRAY, "SCAN %s COUNT 1000", cursor.c_str());
      if (scanned->elements != 2 || scanned->element[1]->type != REDIS_REPLY_ARRAY) {
        refuse_hidden_keys("an unexpected reply");
      }
      const redisReply& keys = *scanned->element[1];
      for (std::size_t i = 0; i < keys.elements; ++i) {
        const std::string_view key = text_of(*keys.element[i]);
        if (key.substr(0, workload_prefix.size()) != workload_prefix) {
          refuse("has a key that ruvo_chaos has not written: " + std::string(key));
        }
      }
      cursor = text_of(*scanned->element[0]);
    } while (cursor != "0");
  }

 private:
  static redisContext* connect(const std::string& addr, const Settings& settings) {
    const std::optional<server_addr> server = parse_address(addr);
    if (!server || server->port_ > max_port) {
      throw std::runtime_error("not ip:port: " + addr);
    }
    return redisConnectWithTimeout(server->ip_.c_str(), static_cast<int>(server->port_),
                                   to_timeval(settings.connect_timeout_ms));
  }

  template <typename... Args>
  Reply ask(int type, const char* format, Args... args) {
    Reply reply(static_cast<redisReply*>(redisCommand(context_.get(), format, args...)));
    if (reply == nullptr) {
      refuse_hidden_keys(context_->errstr);
    }
    if (reply->type != type) {
      refuse_hidden_keys(reply->type == REDIS_REPLY_ERROR ? reply->str : "an unexpected reply");
    }
    return reply;
  }

  [[noreturn]] void refuse_hidden_keys(const std::string& why) const {
    refuse("does not show its keys: " + why);
  }
  [[noreturn]] void refuse(const std::string& why) const {
    throw std::runtime_error(
        addr_ + ' ' + why +
        "\nThe servers of --config must be disposable; if they are, add --throwaway");
  }

  std::string addr_;
  Context context_;
};

}  // namespace

void refuse_foreign_keys(const Site& site) {
  std::set<std::string> seen;  // pools may share servers
  for (std::size_t pool = 0; pool < pool_count; ++pool) {
    for (const auto& target : site.pools[pool]) {
      if (seen.insert(target->addr()).second) {
        Server(target->addr(), site.settings, site.passwords[pool]).refuse_foreign_keys();
      }
    }
  }
}
