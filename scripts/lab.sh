#!/usr/bin/env bash
# A fleet of simulated hosts. Each has a firmware, a service and an agent of its own, in a network
# namespace of its own; a bridge joins them to this machine, so a console here reaches host N at
# 198.18.1.N, port 664 (RFC 2544: addresses for tests).
#   scripts/lab.sh up N         starts the hosts 1 to N (at most 250); those that run stay
#   scripts/lab.sh down         ends all, and removes bridge and files
#   scripts/lab.sh list         a table: host, address, process numbers, memory, state
#   scripts/lab.sh run CMD...   runs a command here once for each host, with WSENDPOINT (ADDRESS:664),
#                               STEWARDRY_HOST (ADDRESS) and STEWARDRY_LAB (the host's folder) set;
#                               the exit code is 0 if it was 0 for all. For Debian's wsl, which asks
#                               for what it is not given, a user and a password are set too
# Text written to the file `prompt` in a host's folder is typed at its firmware's prompt. Needs root,
# or a user namespace with a network of its own. STEWARDRY_FLEET names another folder for the files,
# STEWARDRY_BIN the folder of the programs, which are built if it is not set.
set -uo pipefail
self=$(readlink -f "$0")
readonly self fleet=${STEWARDRY_FLEET:-/tmp/stewardry-fleet} bridge=stewardry0
readonly gateway=198.18.0.1 most=250
shopt -s nullglob

give_up() {
  printf 'lab.sh: %s\n' "$*" >&2
  exit 1
}
usage() {
  sed -n '2,/^set/{/^#/s/^# \{0,1\}//p}' "$self" >&2
  exit 2
}
address_of() { printf '198.18.1.%d' "$1"; }
numbers() { # of the hosts that have a folder, in order
  local folder
  for folder in "$fleet"/[0-9]*; do basename "$folder"; done | sort -n
}

# A process is known by its number and its start time, so that a number that was given to another
# process is not taken for it. One that has ended and waits for its parent has none.
started_at() { sed 's/.*) //' "/proc/$1/stat" 2>/dev/null | awk '$1 != "Z" {print $20}'; }
remember() { printf '%d %s\n' "$2" "$(started_at "$2")" >"$1"; } # remember FILE PROCESS
running() { # prints the process number in FILE if it still runs
  local process since
  [ -r "$1" ] && read -r process since <"$1" || return 1
  [ -n "$since" ] && [ "$(started_at "$process")" = "$since" ] && echo "$process"
}
wait_until() { # wait_until SECONDS COMMAND...
  local tries=$(($1 * 50))
  shift
  while ((tries-- > 0)); do
    "$@" && return
    sleep 0.02
  done
  return 1
}

build() {
  [ -n "${STEWARDRY_BIN:-}" ] && return
  local root=${self%/scripts/lab.sh}
  export STEWARDRY_BIN=$root/build/demo/bin
  echo "building service, firmware and agent"
  (cd "$root" && scripts/setup.sh demo && cmake --preset release -B build/demo &&
    cmake --build build/demo -j "$(nproc)" --target quillonsvc orrin KVM_Agent) >"$fleet/build.log" 2>&1 ||
    give_up "the build failed, see $fleet/build.log"
}

has_link() { ip link show dev "$1" >/dev/null 2>&1; }
make_bridge() {
  has_link $bridge && return
  ip -batch - <<END || give_up "no bridge can be made; this needs root"
link add $bridge type bridge
addr add $gateway/15 dev $bridge
link set $bridge up
END
}

has_left_namespace() { [ "$(readlink "/proc/$1/ns/net")" != "$(readlink /proc/self/ns/net)" ]; }

start_host() { # start_host N
  local folder=$fleet/$1 process
  running "$folder/service.pid" >/dev/null && return
  stop_host "$1"
  if ! { mkdir -p "$folder" && mkfifo "$folder/prompt"; }; then
    give_up "no folder $folder can be made"
  fi
  export STEWARDRY_LAB=$folder
  # The prompt is opened for reading and writing, so it never ends.
  setsid unshare --net --uts "$STEWARDRY_BIN/orrin" <>"$folder/prompt" >"$folder/orrin.txt" 2>&1 &
  process=$!
  remember "$folder/orrin.pid" $process
  wait_until 10 has_left_namespace $process || give_up "host $1 has no network namespace"
  ip -batch - <<END || give_up "host $1 cannot be joined to the bridge"
link add sw$1 type veth peer name lab0 netns $process
link set sw$1 master $bridge up
END
  # shellcheck disable=SC2016  # expanded by the inner shell
  nsenter --target $process --net --uts sh -c '
    echo "host-$1" >/proc/sys/kernel/hostname && ip -batch - ' host "$1" <<END || give_up "host $1 has no address"
link set lo up
addr add $(address_of "$1")/15 dev lab0
link set lab0 up
route add default via $gateway
END
  wait_until 10 grep -qs "listening on" "$folder/orrin.txt" || give_up "the firmware of host $1 does not start"
  setsid nsenter --target $process --net --uts "$STEWARDRY_BIN/quillonsvc" ult </dev/null \
    >"$folder/service.txt" 2>&1 &
  remember "$folder/service.pid" $!
}

is_bound() { grep -qs "Bind to port 664 successful" "$fleet/$1"/ProgramData/*/*/tavrinLog.log; }

has_ended() { ! running "$1" >/dev/null; }
end_process() { # end_process FILE
  local process
  process=$(running "$1") || return 0
  kill "$process"
  wait_until 10 has_ended "$1" || kill -KILL "$process"
}

stop_host() { # stop_host N
  local folder=$fleet/$1 agent
  [ -d "$folder" ] || return 0
  end_process "$folder/service.pid"
  end_process "$folder/orrin.pid"
  # An agent outlives a service that is ended within a session.
  agent=$(sed -n 's/^agent \([0-9]*\) runs$/\1/p' "$folder/agent.txt" 2>/dev/null | tail -1)
  [ "$(cat "/proc/${agent:-0}/comm" 2>/dev/null)" = KVM_Agent ] && kill "$agent"
  has_link "sw$1" && ip link del "sw$1"
  rm -rf "$folder"
}

up() {
  [[ ${1:-} =~ ^[1-9][0-9]*$ && $1 -le $most ]] || usage
  mkdir -p "$fleet" || exit 1
  build
  make_bridge
  local number
  for ((number = 1; number <= $1; ++number)); do start_host "$number"; done
  for ((number = 1; number <= $1; ++number)); do
    wait_until 60 is_bound "$number" || give_up "host $number does not listen, see $fleet/$number"
  done
  printf '%d hosts at %s to %s, port 664\n' "$1" "$(address_of 1)" "$(address_of "$1")"
}

down() {
  local number file
  # All end at the same time, services first; the last pass waits for each.
  for file in service.pid orrin.pid; do
    for number in $(numbers); do running "$fleet/$number/$file"; done | xargs -r kill
  done
  for number in $(numbers); do stop_host "$number"; done
  has_link $bridge && ip link del $bridge
  rm -rf "$fleet"
}

memory_of() { awk '/^Pss:/ {print int(($2 + 512) / 1024)}' "/proc/$1/smaps_rollup" 2>/dev/null; }

list() {
  local number service firmware state
  printf '%-5s %-14s %8s %8s %8s  %s\n' host address service firmware memory state
  for number in $(numbers); do
    service=$(running "$fleet/$number/service.pid") firmware=$(running "$fleet/$number/orrin.pid")
    state="port 664 listens"
    is_bound "$number" || state="starting"
    [ -n "$service" ] || state="the service has ended"
    [ -n "$firmware" ] || state="the firmware has ended"
    printf '%-5d %-14s %8s %8s %8s  %s\n' "$number" "$(address_of "$number")" "${service:--}" \
      "${firmware:--}" "$(memory_of "${service:-0}")+$(memory_of "${firmware:-0}")M" "$state"
  done
}

run() {
  [ $# -gt 0 ] || usage
  local number failed=0
  export WSUSER=${WSUSER:-x} WSPASS=${WSPASS:-x} WSDONTASK=${WSDONTASK:-y} IPINTERACTIVE=${IPINTERACTIVE:-n}
  for number in $(numbers); do
    STEWARDRY_HOST=$(address_of "$number") STEWARDRY_LAB=$fleet/$number \
      WSENDPOINT=$(address_of "$number"):664 "$@" 2>&1 </dev/null | sed "s/^/host-$number  /"
    [ "${PIPESTATUS[0]}" -eq 0 ] || failed=1
  done
  return $failed
}

readonly command=${1:-}
shift
case "$command" in
  up | down | list | run) "$command" "$@" ;;
  *) usage ;;
esac
