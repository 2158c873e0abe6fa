// Removes the network from a program: the recorded replies of a server are played from memory,
// without a system call. What remains is the time and the instructions of user space, the same in
// each run.
//
// It replaces read(2), recv(2), write(2), send(2), sendmsg(2) and ppoll(2) of the whole program,
// shared libraries included. Use it in a single thread.
#ifndef RUVO_BENCH_TAPE_H
#define RUVO_BENCH_TAPE_H

#include <cstddef>
#include <string>
#include <vector>

class Tape {
 public:
  Tape() = default;
  ~Tape() { stop(); }
  Tape(const Tape&) = delete;
  Tape& operator=(const Tape&) = delete;

  // From now on records what is read, a reply for each command that is sent.
  void record();
  // From now on commands are discarded, and the replies are repeated in their order.
  void play();
  // From now on all calls go to the system again.
  static void stop();

  void sent();
  void received(const char* bytes, std::size_t length);
  std::size_t next(char* buffer, std::size_t size, bool peeks);
  bool has_more() const;

 private:
  std::vector<std::string> replies_;
  std::size_t reply_ = 0;
  std::size_t position_ = 0;  // in the reply
};

#endif
