#!/usr/bin/env bash
# Simulates a site with failover: a primary and a replica, three Sentinels, and two HAProxies that connect to the
# primary, all throwaway and on loopback. A host with 16 threads writes and reads through the HAProxies while the primary
# is failed over by command, and then killed. Prints the results of the host each second.
#
#   scripts/site.sh [--check sentinel|role] [--without-keys] [--require-none]
#
#   --check         how HAProxy finds the primary: it asks the Sentinels (sentinel), or each Redis for its role
#                   (role); the files are examples/site/haproxy_*.cfg
#   --without-keys  omits recommended_defaults
#   --require-none  fails if a call failed
#
# SITE_SECONDS=N in the environment: how long the host runs (30).
set -euo pipefail
cd "$(dirname "$0")/.."

wrong_usage() { echo "site.sh: $1" >&2; exit 64; }

check=sentinel
keys="recommended_defaults = true"
host_options=()
while [ $# -gt 0 ]; do
  case $1 in
    --check)
      [[ ${2:-} =~ ^(sentinel|role)$ ]] || wrong_usage "--check takes sentinel or role, not '${2:-}'"
      check=$2
      shift
      ;;
    --without-keys) keys= ;;
    --require-none) host_options+=("$1") ;;
    *) wrong_usage "unknown argument '$1'" ;;
  esac
  shift
done
seconds=${SITE_SECONDS:-30}
[[ $seconds =~ ^[1-9][0-9]{0,3}$ && $seconds -ge 25 ]] ||
  wrong_usage "SITE_SECONDS must be a number from 25 to 9999, not '$seconds'"

scripts/deps.sh build site
cmake -G Ninja -DRUVO_BUILD_BENCH=ON -DRUVO_BUILD_TESTS=OFF -DRUVO_BUILD_TOOLS=OFF -DRUVO_BUILD_EXAMPLES=OFF -B build/site >/dev/null
cmake --build build/site --target site_host

. scripts/throwaway.sh
export SITE=site
host=127.0.0.1
give_ports redis-{1,2} sentinel-{1,2,3} haproxy-{1,2}

start_redis() {  # name, and the primary of a replica
  mkdir -p "$work/$1"
  redis-server --port "${port_of[$1]}" --bind $host --save '' --dir "$work/$1" --repl-diskless-sync-delay 0 \
    ${2:+--replicaof "$host ${port_of[$2]}"} >>"$work/$1.log" 2>&1 &
  pid_of[$1]=$!
  wait_for redis-cli -p "${port_of[$1]}" ping
}

start_sentinel() {  # name
  mkdir -p "$work/$1"
  cat >"$work/$1/sentinel.conf" <<CONF
port ${port_of[$1]}
bind $host
dir $work/$1
sentinel monitor $SITE $host ${port_of[redis-1]} 2
sentinel down-after-milliseconds $SITE 300
sentinel failover-timeout $SITE 5000
CONF
  redis-server "$work/$1/sentinel.conf" --sentinel >>"$work/$1.log" 2>&1 &
  pid_of[$1]=$!
  wait_for redis-cli -p "${port_of[$1]}" ping
}

start_haproxy() {  # name
  LISTEN=$host:${port_of[$1]} haproxy -db -f "examples/site/haproxy_$check.cfg" >>"$work/$1.log" 2>&1 &
  pid_of[$1]=$!
}

role_of() { redis-cli -p "$1" role | head -n 1; }
is_replica() { redis-cli -p "${port_of[$1]}" info replication | grep -q master_link_status:up; }
knows_the_others() {  # port of a Sentinel
  local known
  known=$(redis-cli -p "$1" sentinel master $SITE)
  [[ $known == *num-slaves$'\n'1* && $known == *num-other-sentinels$'\n'2* ]]
}
leads_to_the_primary() {  # port of an HAProxy, which may use both Redis servers round-robin
  for _ in 1 2 3 4 5 6; do
    [ "$(role_of "$1")" = master ] || return 1
  done
}
primary() {
  local port
  port=$(redis-cli -p "${port_of[sentinel-1]}" sentinel get-master-addr-by-name $SITE | tail -n 1)
  for name in redis-1 redis-2; do
    if [ "${port_of[$name]}" = "$port" ]; then
      echo $name
    fi
  done
}

start_redis redis-1
start_redis redis-2 redis-1
wait_for is_replica redis-2
for number in 1 2 3; do
  start_sentinel sentinel-$number
  export SENTINEL_$number=$host:${port_of[sentinel-$number]}
done
for number in 1 2; do
  export REDIS_${number}_HOST=$host REDIS_${number}_PORT="${port_of[redis-$number]}"
done
for number in 1 2 3; do wait_for knows_the_others "${port_of[sentinel-$number]}"; done
for number in 1 2; do start_haproxy haproxy-$number; done
for number in 1 2; do wait_for leads_to_the_primary "${port_of[haproxy-$number]}"; done

servers=$host:${port_of[haproxy-1]},$host:${port_of[haproxy-2]}
cat >"$work/sruvo.conf" <<CONF
[redis_cfg]
redis_cfg_path = $work/ruvo_redis.conf
CONF
cat >"$work/ruvo_redis.conf" <<CONF
[common]
$keys
connect_timeout = 200
socket_timeout = 500
temp_server = $servers
persist_server = $servers
personality_server = $servers

[server]
p_connect_num = 2
CONF

echo
echo "--- site_host: 16 threads, $seconds seconds; HAProxy's check: $check; keys: ${keys:-none}"
build/site/bench/site_host --config "$work/sruvo.conf" --seconds "$seconds" --threads 16 "${host_options[@]}" &
pid_of[site_host]=$!

sleep 4
former=$(primary)
echo "--- SENTINEL FAILOVER, away from $former"
redis-cli -p "${port_of[sentinel-1]}" sentinel failover $SITE >/dev/null
wait_for is_replica "$former"  # takes about ten seconds; without a replica no server can take over
sleep 2
killed=$(primary)
kill_hard "$killed"
sleep 5
echo "--- $killed starts again"
start_redis "$killed"

result=0
wait "${pid_of[site_host]}" || result=$?
unset "pid_of[site_host]"
exit "$result"
