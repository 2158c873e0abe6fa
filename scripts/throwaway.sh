# Programs that a script starts on loopback and that end with it; sourced by demo.sh and site.sh. They leave
# nothing behind, however the script ends.

work=$(mktemp -d)
declare -A pid_of   # the programs that the script has started, by name
stop_all() {
  trap '' INT TERM  # a second signal must not stop the clean-up
  for name in "${!pid_of[@]}"; do
    kill "${pid_of[$name]}" 2>/dev/null || true
    wait "${pid_of[$name]}" 2>/dev/null || true
  done
  rm -rf "$work"
}
trap stop_all EXIT
trap 'exit 130' INT TERM

# Prints a number of loopback ports that are free now.
free_ports() {
  perl -MSocket -e '
    for (1 .. shift) {
      my $s;
      socket($s, PF_INET, SOCK_STREAM, 0) && bind($s, sockaddr_in(0, INADDR_LOOPBACK)) or die $!;
      push @open, $s;
      print((sockaddr_in(getsockname $s))[0], "\n");
    }' "$1"
}

# Gives each name a free port.
declare -A port_of
give_ports() {
  local ports
  mapfile -t ports < <(free_ports $#)
  for name in "$@"; do
    port_of[$name]=${ports[0]}
    ports=("${ports[@]:1}")
  done
}

# Waits until a command succeeds.
wait_for() {
  for _ in $(seq 400); do
    "$@" >/dev/null 2>&1 && return
    sleep 0.05
  done
  echo "${0##*/}: no success within twenty seconds: $*" >&2
  return 1
}

kill_hard() {  # name
  echo "--- SIGKILL to $1"
  kill -KILL "${pid_of[$1]}"
  { wait "${pid_of[$1]}" || true; } 2>/dev/null  # without bash's message about the kill
  unset "pid_of[$1]"
}
