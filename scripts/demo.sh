#!/usr/bin/env bash
# Shows the library at work: builds it, starts throwaway servers on loopback, runs a host with eight
# threads on them, kills one of a pool's two servers under its feet and brings it back.
#
# Each pool is one Redis behind two proxies: the servers of a pool are doors to the same data, so the
# host sees the proxies, and it is a proxy that dies.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${DEMO_SECONDS:-12}
connections=16

scripts/deps.sh build run
cmake --preset release -DRUVO_BUILD_TESTS=OFF -B build/demo >/dev/null
cmake --build build/demo

work=$(mktemp -d)
declare -A pid_of   # what this script has started, by name
stop_all() {
  for name in "${!pid_of[@]}"; do
    kill "${pid_of[$name]}" 2>/dev/null || true
    wait "${pid_of[$name]}" 2>/dev/null || true
  done
  rm -rf "$work"
}
trap stop_all EXIT
trap 'exit 130' INT TERM

# Prints so many loopback ports that are free now.
free_ports() {
  perl -MSocket -e '
    for (1 .. shift) {
      my $s;
      socket($s, PF_INET, SOCK_STREAM, 0) && bind($s, sockaddr_in(0, INADDR_LOOPBACK)) or die $!;
      push @open, $s;
      print((sockaddr_in(getsockname $s))[0], "\n");
    }' "$1"
}

answers() {
  for _ in $(seq 100); do
    [ "$(redis-cli -p "$1" exists probe 2>/dev/null)" = 0 ] && return
    sleep 0.05
  done
  echo "demo.sh: nothing answers on port $1" >&2
  return 1
}

start_redis() {  # name port
  redis-server --port "$2" --bind 127.0.0.1 --save '' --appendonly no --dir "$work" \
    >"$work/$1.log" 2>&1 &
  pid_of[$1]=$!
  answers "$2"
}

start_proxy() {  # name port redis-port statistics-port
  cat >"$work/$1.yml" <<YML
$1:
  listen: 127.0.0.1:$2
  redis: true
  hash: fnv1a_64
  distribution: ketama
  timeout: 2000
  servers:
    - 127.0.0.1:$3:1
YML
  nutcracker -c "$work/$1.yml" -a 127.0.0.1 -s "$4" -p "$work/$1.pid" -o "$work/$1.log" \
    >/dev/null 2>&1 &
  pid_of[$1]=$!
  answers "$2"
}

pools=(temp persist personality)
mapfile -t ports < <(free_ports $((5 * ${#pools[@]})))
declare -A addrs
for pool in "${pools[@]}"; do
  redis=${ports[0]} first=${ports[1]} second=${ports[2]}
  start_redis "$pool-redis" "$redis"
  start_proxy "$pool-proxy-1" "$first" "$redis" "${ports[3]}"
  start_proxy "$pool-proxy-2" "$second" "$redis" "${ports[4]}"
  [ "$pool" = temp ] && victim=("$pool-proxy-1" "$first" "$redis" "${ports[3]}")
  addrs[$pool]=127.0.0.1:$first,127.0.0.1:$second
  ports=("${ports[@]:5}")
done

cat >"$work/sruvo.conf" <<CONF
[redis_cfg]
redis_cfg_path = $work/redis.conf
CONF
cat >"$work/redis.conf" <<CONF
[common]
connect_timeout = 200
socket_timeout = 2000
temp_server = ${addrs[temp]}
persist_server = ${addrs[persist]}
personality_server = ${addrs[personality]}

[server]
p_connect_num = $connections
p_server_failure_limit = 5
p_server_retry_timeout = 2
t_server_retry_timeout = 2
ps_server_retry_timeout = 2
CONF

echo
echo "--- session_host: 8 threads, $seconds seconds; each pool is one Redis behind two proxies"
build/demo/examples/session_host --config "$work/sruvo.conf" --log "$work/session_host.log" \
  --seconds "$seconds" --threads 8 &
host=$!

sleep $((seconds / 3))
echo "--- SIGKILL to ${victim[0]}, one of the temporary pool's two servers"
kill -KILL "${pid_of[${victim[0]}]}"
{ wait "${pid_of[${victim[0]}]}" || true; } 2>/dev/null  # bash would tell of the kill
sleep $((seconds / 3))
echo "--- ${victim[0]} starts again"
start_proxy "${victim[@]}"

result=0
wait "$host" || result=$?
echo
echo "--- what the log told, by kind"
sed -E 's/^[^ ]+ [^ ]+ [0-9]+ ([A-Z]+) [^ ]+ /\1 /; s/(key|session|visits|profile):[^ ,]+/\1:.../g;
        s/[0-9]+ seconds/N seconds/; s/failure count:[0-9]+/failure count:N/' \
  "$work/session_host.log" | sort | uniq -c | sort -rn | head -n 12
if [ "$result" -ne 0 ]; then
  echo "the host reported failed operations" >&2
fi
exit "$result"
