// A door to a Redis: a small forwarder of TCP connections that runs in a process of its own and can
// be made to fail in every way a server fails. The signals that it understands:
//
//   SIGKILL          a crash
//   SIGSTOP, SIGCONT it hangs; the system still takes connections for it
//   SIGUSR1, SIGUSR2 it hangs in another way: takes connections and commands, and answers nothing
//   SIGHUP           resets all its connections
//
// A door that comes back to life resets the connections that it has: what it held of commands whose
// callers have long gone on must not run late, after newer ones. (A server that does otherwise has
// its hosts see old values come back; nothing in a host can prevent it.)
#ifndef RUVO_TOOLS_CHAOS_DOOR_H
#define RUVO_TOOLS_CHAOS_DOOR_H

constexpr const char* door_is_ready = "door: ready";
constexpr const char* door_has_paused = "door: paused";
constexpr const char* door_has_dropped = "door: dropped";  // after SIGCONT, SIGUSR2 and SIGHUP

// Forwards from one loopback port to another until the process is killed. Returns only when it
// cannot begin.
int run_door(int port, int redis_port);

#endif
