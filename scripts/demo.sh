#!/usr/bin/env bash
# Shows the product at work. Without an argument a management console (curl) talks DASH to the
# firmware (orrin) through the service's port 664; with `kvm` a viewer sees the firmware's screen
# through port 22, types and drags. Runs in a network namespace of its own where it may. Exit code 0
# only if every answer was right. STEWARDRY_BUILD names another folder for the build.
set -uo pipefail
cd "$(dirname "$0")/.." || exit
readonly show=${1:-dash}
case "$show" in
  dash) ports=(664) packages=demo targets=(quillonsvc orrin) ;;
  kvm) ports=(664 22) packages=kvm targets=(quillonsvc orrin KVM_Agent vnc_viewer) ;;
  *)
    echo "usage: scripts/demo.sh [kvm]" >&2
    exit 2
    ;;
esac
readonly port=664 address=192.0.2.10 gateway=192.0.2.1 # the lab's host, TEST-NET-1
readonly build=${STEWARDRY_BUILD:-build/demo}

if [ -t 1 ]; then
  bold=$'\e[1m' dim=$'\e[2m' green=$'\e[32m' red=$'\e[31m' plain=$'\e[0m'
else
  bold='' dim='' green='' red='' plain=''
fi
wrong=0

heading() { printf '\n%s%s%s\n' "$bold" "$*" "$plain"; }
asked() { printf '%s  $ %s%s\n' "$dim" "$*" "$plain"; }
indent() { sed 's/^/  /'; }
check() { # check WORDS COMMAND...: says whether the command succeeds, and remembers
  local words=$1
  shift
  if "$@" >/dev/null 2>&1; then
    printf '  %sright%s  %s\n' "$green" "$plain" "$words"
  else
    printf '  %sWRONG%s  %s\n' "$red" "$plain" "$words"
    wrong=1
  fi
}
give_up() {
  printf '%s%s%s\n' "$red" "$*" "$plain" >&2
  exit 1
}
wait_for() { # wait_for FILE TEXT: up to 30 s
  for _ in {1..300}; do
    grep -qsF -- "$2" "$1" && return
    sleep 0.1
  done
  tail -n 40 "$1" >&2
  give_up "waited in vain for: $2"
}

# 1. What is missing, and the build.

prepare() {
  heading "Stewardry: building the service and the firmware simulator"
  local log
  log=$(mktemp)
  if ! { scripts/setup.sh "$packages" && cmake --preset release -B "$build" &&
         cmake --build "$build" -j "$(nproc)" --target "${targets[@]}"; } >"$log" 2>&1; then
    tail -n 40 "$log" >&2
    rm -f "$log"
    give_up "the build failed"
  fi
  rm -f "$log"
  local words=${targets[*]}
  printf '  %s/bin: %s\n' "$build" "${words// /, }"
}

# 2. A place for the ports.

enter_namespace() { # runs the rest of the demo in it, if one can be made
  local way
  for way in "unshare --net" "unshare --user --map-root-user --net"; do
    $way ip link add trial0 type veth 2>/dev/null || continue
    STEWARDRY_DEMO_PLACE=namespace exec $way bash scripts/demo.sh "$show"
  done
}
make_network() {
  local step
  for step in "link set lo up" "link add wire0 type veth peer name lab0" "link set wire0 up" \
              "link set lab0 up" "addr add $address/24 dev lab0" \
              "route add default via $gateway"; do
    # shellcheck disable=SC2086  # the words of a command
    ip $step || give_up "the namespace's network can't be made: ip $step"
  done
}

case "${STEWARDRY_DEMO_PLACE:-}" in
  "")
    prepare
    enter_namespace
    STEWARDRY_DEMO_PLACE=host exec bash scripts/demo.sh "$show"
    ;;
  namespace)
    make_network
    printf '  running in a network namespace of its own: the machine'"'"'s ports are left alone\n'
    ;;
  host)
    for one in "${ports[@]}"; do
      printf '  no network namespace can be made here: the machine'"'"'s own port %d is used\n' "$one"
      [ -z "$(ss -Hltn "sport = :$one")" ] || give_up "port $one is in use"
      [ "$(id -u)" -eq 0 ] || give_up "port $one needs root"
    done
    ;;
  *) give_up "STEWARDRY_DEMO_PLACE is this script's own" ;;
esac

# 3. The firmware and the service.

STEWARDRY_LAB=$(mktemp -d)
export STEWARDRY_LAB
readonly trace=$STEWARDRY_LAB/orrin.txt
readonly log=$STEWARDRY_LAB/ProgramData/Corvane/Stewardry/tavrinLog.log
firmware='' service='' viewer=''
# shellcheck disable=SC2317  # called by the trap
clean_up() {
  local process
  for process in $viewer $service $firmware; do
    kill "$process" 2>/dev/null && wait "$process" 2>/dev/null
  done
  # An agent outlives a service that is ended within a session.
  process=$(sed -n 's/^agent \([0-9]*\) runs$/\1/p' "$STEWARDRY_LAB/agent.txt" 2>/dev/null | tail -1)
  [ "$(cat "/proc/${process:-0}/comm" 2>/dev/null)" = KVM_Agent ] && kill "$process"
  rm -rf "$STEWARDRY_LAB"
}
trap clean_up EXIT
trap 'exit 130' INT TERM

# Its prompt stays open: a reader and a writer of one pipe.
mkfifo "$STEWARDRY_LAB/prompt"
exec 3<>"$STEWARDRY_LAB/prompt"
"$build/bin/orrin" <&3 >"$trace" 2>&1 &
firmware=$!
wait_for "$trace" "listening on"
"$build/bin/quillonsvc" ult </dev/null >"$STEWARDRY_LAB/service.txt" 2>&1 3>&- &
service=$!
wait_for "$log" "Bind to port $port successful"
printf '  orrin (firmware) is process %d, quillonsvc (service) process %d\n' $firmware $service

# 4. What happened inside, shown at the end.

# Runs of lines about bulk data are shown by their first two and their number.
fold() {
  awk -v bulk="$1" '
    function flush() {
      if (run == 3) print last
      if (run > 3) printf "            ... and %d lines more about bytes on their way\n", run - 2
      run = 0
    }
    $0 ~ bulk { last = $0; if (++run <= 2) print; next }
    { flush(); print }
    END { flush() }'
}
show_inside() { # show_inside TRACE-BULK LOG-BULK
  heading "What crossed the mailbox, in orrin's words"
  sed -E 's/ (host|firmware) > (firmware|host)  /  \1 > \2  /' "$trace" | cut -c1-150 |
    fold "$1" | indent

  heading "What the service log says ($(wc -l <"$log") lines; here without process, memory and thread)"
  tr -d '\r' <"$log" |
    sed -E 's/^[A-Z]+: +<[^ ]+ ([0-9:]+)>\[[0-9]+\]-\[ [0-9]+ M \] (.*) <thread=[0-9]+ \(0x[0-9a-f]+\)>$/\1  \2/' |
    cut -c1-150 | fold "$2" | indent
}
say_verdict() { # ends the demo
  check "the service is still at work" kill -0 "$service"
  if [ $wrong -eq 0 ]; then
    printf '\n%sEvery answer was right.%s\n' "$green$bold" "$plain"
  else
    printf '\n%sSomething was wrong, see above.%s\n' "$red$bold" "$plain"
  fi
  exit $wrong
}

if [ "$show" = kvm ]; then
  # shellcheck source=scripts/demo_kvm.sh
  . scripts/demo_kvm.sh
fi

# 5. A console's requests.

readonly answer=$STEWARDRY_LAB/answer url=https://127.0.0.1:$port
readonly soap='Content-Type: application/soap+xml;charset=UTF-8'
ask() { curl -sSk --noproxy '*' --max-time 20 --fail -o "$answer" "$@" 2>&1 | indent; }
says() { grep -qF -- "$1" "$answer"; }
elements() { tr '\n' ' ' <"$answer" | grep -oE '<[a-z]+:[A-Za-z]+>[^<]+<' | sed -E 's/<([a-z]+:)?([A-Za-z]+)>(.*)</  \2: \3/'; }

heading "1. Who are you? DASH Identify"
asked "curl -k $url/wsman --data '<s:Envelope ...><wsmid:Identify/>...'"
ask -H "$soap" --data '<s:Envelope xmlns:s="http://www.w3.org/2003/05/soap-envelope" xmlns:wsmid="http://schemas.dmtf.org/wbem/wsman/identity/1/wsmanidentity.xsd"><s:Header/><s:Body><wsmid:Identify/></s:Body></s:Envelope>' "$url/wsman"
elements
check "the firmware has answered for itself" says "<i:ProductVendor>Corvane<"

heading "2. What are you running on? The inventory that the service has reported"
asked "curl -k $url/"
ask "$url/"
sed -E 's/^\{//; s/\}$//; s/,("(network|ip|reports)":\{|"serviceStatus":[0-9]+,"net)/,\n\1/g' "$answer" | indent
check "host name, as this machine has it" says "\"hostName\":\"$(hostname)\""
check "system, as this machine has it" says "\"version\":\"$(uname -r)\""
check "service version" says '"serviceVersion":"1.0.0.533"'
[ "$STEWARDRY_DEMO_PLACE" = host ] || check "address and gateway" \
  says "\"address\":\"$address\",\"subnetMask\":\"255.255.255.0\",\"gateway\":\"$gateway\""

heading "3. A mebibyte there and back"
asked "curl -k $url/echo --data-binary @random | sha256sum"
head -c 1048576 /dev/urandom >"$STEWARDRY_LAB/random"
ask --data-binary "@$STEWARDRY_LAB/random" "$url/echo"
sha256sum <"$STEWARDRY_LAB/random" | sed 's/-$/sent/' | indent
sha256sum <"$answer" 2>/dev/null | sed 's/-$/came back/' | indent
check "the same bytes" cmp "$STEWARDRY_LAB/random" "$answer"

heading "4. Restart! A WS-Management power state change (PowerState 10, Master Bus Reset)"
readonly cim=http://schemas.dmtf.org/wbem/wscim/1/cim-schema/2/CIM_PowerManagementService
asked "curl -k $url/wsman --data '...<p:RequestPowerStateChange_INPUT><p:PowerState>10<...'"
: >"$answer"
ask -H "$soap" --data "<s:Envelope xmlns:s=\"http://www.w3.org/2003/05/soap-envelope\" xmlns:a=\"http://schemas.xmlsoap.org/ws/2004/08/addressing\" xmlns:p=\"$cim\"><s:Header><a:Action>$cim/RequestPowerStateChange</a:Action><a:MessageID>uuid:demo</a:MessageID></s:Header><s:Body><p:RequestPowerStateChange_INPUT><p:PowerState>10</p:PowerState></p:RequestPowerStateChange_INPUT></s:Body></s:Envelope>" "$url/wsman"
elements
check "the console has its answer: ReturnValue 0, done" says "<p:ReturnValue>0<"
wait_for "$STEWARDRY_LAB/power.txt" InitiateSystemShutdownExA
indent <"$STEWARDRY_LAB/power.txt"
check "the restart was asked for once, behind the answer, in the lab's power.txt" \
  test "$(grep -c 'reboot=true' "$STEWARDRY_LAB/power.txt")" -eq 1
check "this machine was not touched: up for $(cut -d. -f1 /proc/uptime) s, no restart under way" \
  test ! -e /run/systemd/shutdown/scheduled

show_inside '(WriteDASHPacket|DASH_DATA)' '(read size|Exiting HTTPS Callback|Size written is)'
check "the service was asked to restart the host" grep -qF "Reboot initiated" "$log"
say_verdict
