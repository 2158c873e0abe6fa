// A real Redis that answers but does not serve: a replica, a server that loads its data, one at its
// limit of clients, one that requires a password. Each function changes a running server and closes
// the connections of its clients, so that the next command meets the new state.
#ifndef RUVO_TESTING_SERVER_STATES_H
#define RUVO_TESTING_SERVER_STATES_H

#include <string>

#include "fixtures.h"

// A connection that stays open, so that its commands work while the server accepts no other.
class ControlConnection : NoCopy {
 public:
  explicit ControlConnection(const RedisServer& server, const std::string& password = "");
  ~ControlConnection();
  // Returns the reply's first line. REQUIRES: no word of the command contains blanks or quotes.
  std::string send(const std::string& command) const;  // throws std::runtime_error
  void close_clients() const { send("CLIENT KILL TYPE normal"); }

 private:
  int fd_;
};

// Writes are answered with READONLY once the copy of the data is complete.
void become_replica(const RedisServer& server, const RedisServer& primary);

// Every command for data is answered with MASTERDOWN.
void become_replica_without_primary(const RedisServer& server);

// Ends either of these two states.
void become_primary(const RedisServer& server);

// Every command except AUTH is answered with NOAUTH.
void want_password(const RedisServer& server, const std::string& password);
// `password`: the one that it requires so far.
void want_no_password(const RedisServer& server, const std::string& password);

// Restarts the server with data that takes a minute to load: commands are answered with LOADING.
// Ends with finish_loading, or with the next restart.
void restart_loading(RedisServer& server);
void finish_loading(const RedisServer& server);

// While it exists the server is at its limit of clients: it accepts this number of connections,
// answers any further one with an error, and closes it.
class ClientLimit : NoCopy {
 public:
  explicit ClientLimit(const RedisServer& server, int clients = 0,
                       const std::string& password = "");
  ~ClientLimit();

 private:
  ControlConnection control_;
};

#endif
