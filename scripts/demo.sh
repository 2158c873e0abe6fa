#!/usr/bin/env bash
# Shows the library at work: builds it, starts throwaway servers on loopback, runs a host with eight threads on them
# (ruvo_chaos, which checks every value), and meanwhile kills one of a pool's two servers and restarts it.
#
#   scripts/demo.sh [--shards N]     DEMO_SECONDS=N in the environment: how long the host runs (12)
#
# The servers of a pool serve the same data: two proxies in front of N Redis servers, the shards, which share the keys.
# The host sees only the proxies. A proxy dies first: no operation fails. With two shards or more, a shard dies next. No
# other server has the shard's keys, so the operations on them fail until the shard is back, with its data.
set -euo pipefail
cd "$(dirname "$0")/.."

wrong_usage() { echo "demo.sh: $1" >&2; exit 64; }

shards=1
while [ $# -gt 0 ]; do
  [ "$1" = --shards ] || wrong_usage "unknown argument '$1'; usage: scripts/demo.sh [--shards N]"
  [[ ${2:-} =~ ^[1-9]$ ]] || wrong_usage "--shards takes a number from 1 to 9, not '${2:-}'"
  shards=$2
  shift 2
done
# Each target is killed after a pause and starts again after another; then the host runs for three more seconds.
pauses=$((shards > 1 ? 4 : 2))
seconds=${DEMO_SECONDS:-12}
[[ $seconds =~ ^[1-9][0-9]{0,3}$ && $seconds -ge $((pauses + 3)) ]] ||
  wrong_usage "DEMO_SECONDS must be a number from $((pauses + 3)) to 9999, not '$seconds'"
pause=$(((seconds - 3) / pauses))
connections=2

scripts/deps.sh build run
cmake -G Ninja -DRUVO_BUILD_TOOLS=ON -DRUVO_BUILD_TESTS=OFF -DRUVO_BUILD_EXAMPLES=OFF -B build/demo >/dev/null
cmake --build build/demo --target ruvo_chaos

. scripts/throwaway.sh
reads() { [ "$(redis-cli -p "$1" exists probe)" = 0 ]; }

# A shard writes each change to a file before it answers, and reads the file when it starts. Without fsync: Redis
# delays writes while a fsync takes long on a busy disk, and a kill would lose the delayed ones.
start_shard() {  # name
  mkdir -p "$work/$1"
  redis-server --port "${port_of[$1]}" --bind 127.0.0.1 --save '' --appendonly yes \
    --appendfsync no --dir "$work/$1" \
    >>"$work/$1.log" 2>&1 &
  pid_of[$1]=$!
  wait_for reads "${port_of[$1]}"
}

# The proxies of a pool list the same shards in the same order, and so agree on the shard of each key.
start_proxy() {  # name
  {
    cat <<YML
$1:
  listen: 127.0.0.1:${port_of[$1]}
  redis: true
  hash: murmur
  distribution: ketama
  timeout: 400
  servers:
YML
    for number in $(seq "$shards"); do
      echo "    - 127.0.0.1:${port_of[${1%-proxy-*}-shard-$number]}:1"
    done
  } >"$work/$1.yml"
  nutcracker -c "$work/$1.yml" -a 127.0.0.1 -s "${port_of[$1-statistics]}" -p "$work/$1.pid" \
    -o "$work/$1.log" >/dev/null 2>&1 &
  pid_of[$1]=$!
  wait_for reads "${port_of[$1]}"
}

pools=(temp persist personality)
names=()
for pool in "${pools[@]}"; do
  for number in $(seq "$shards"); do names+=("$pool-shard-$number"); done
  for number in 1 2; do names+=("$pool-proxy-$number" "$pool-proxy-$number-statistics"); done
done
give_ports "${names[@]}"
for name in "${names[@]}"; do
  case $name in
    *-shard-?) start_shard "$name" ;;
    *-proxy-?) start_proxy "$name" ;;
  esac
done
proxies_of() { echo "127.0.0.1:${port_of[$1-proxy-1]},127.0.0.1:${port_of[$1-proxy-2]}"; }

cat >"$work/sruvo.conf" <<CONF
[redis_cfg]
redis_cfg_path = $work/ruvo_redis.conf
CONF
# The settings of a new site, except the limit of the log: the host reads every line.
cat >"$work/ruvo_redis.conf" <<CONF
[common]
connect_timeout = 200
socket_timeout = 500
recommended_defaults = true
log_limit = 1000000
temp_server = $(proxies_of temp)
persist_server = $(proxies_of persist)
personality_server = $(proxies_of personality)

[server]
p_connect_num = $connections
p_server_failure_limit = 5
p_server_retry_timeout = 2
t_server_retry_timeout = 2
ps_server_retry_timeout = 2
CONF

faults=single
[ "$shards" -eq 1 ] || faults=outage
echo
echo "--- the host: 8 threads, $seconds seconds; each pool: $shards Redis behind two proxies"
build/demo/tools/chaos/ruvo_chaos --config "$work/sruvo.conf" --throwaway --log "$work/host.log" \
  --seconds "$seconds" --threads 8 --outside-faults "$faults" &
pid_of[host]=$!

sleep $((pause + 1)) # the host warms up for a second
kill_hard temp-proxy-1
sleep "$pause"
echo "--- temp-proxy-1 starts again"
start_proxy temp-proxy-1
if [ "$shards" -gt 1 ]; then
  sleep "$pause"
  redis-cli -p "${port_of[temp-shard-1]}" set before-the-kill kept >/dev/null
  kill_hard temp-shard-1
  sleep "$pause"
  echo "--- temp-shard-1 starts again, with its data"
  start_shard temp-shard-1
  [ "$(redis-cli -p "${port_of[temp-shard-1]}" get before-the-kill)" = kept ]
fi

result=0
wait "${pid_of[host]}" || result=$?
unset "pid_of[host]"
echo
echo "--- lines of the log, by kind"
sed -E 's/^[^ ]+ [^ ]+ [0-9]+ ([A-Z]+) [^ ]+ /\1 /; s/(key|ruvo_workload):[^ ,]+/\1:.../g;
        s/[0-9]+ seconds/N seconds/; s/failure count:[0-9]+/failure count:N/' \
  "$work/host.log" | sort | uniq -c | sort -rn | head -n 12
if [ "$result" -ne 0 ]; then
  echo "demo.sh: the host reports a broken condition" >&2
fi
exit "$result"
