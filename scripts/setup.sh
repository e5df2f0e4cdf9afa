#!/usr/bin/env bash
# Installs what is missing, and nothing else: a second run looks and is done.
#   setup.sh          what scripts/test.sh needs
#   setup.sh quick    only what scripts/test.sh quick needs
#   setup.sh bench    that, and the peers and tools of the benchmarks
#   setup.sh demo     only what scripts/demo.sh needs
#   setup.sh dash     that, and the console of scripts/demo.sh dash
#   setup.sh kvm      the first, and the viewers of scripts/demo.sh kvm
set -euo pipefail

build=(cmake ninja-build g++ libssl-dev libcurl4-openssl-dev libcli11-dev nlohmann-json3-dev
       zlib1g-dev libxml2-dev python3)
clients=(curl openssl iproute2 util-linux)
viewers=(pkg-config libvncserver-dev gvncviewer)
unit=(ccache gdb libgtest-dev libgmock-dev python3-jsonschema)
checks=("${unit[@]}" clang-format clang-tidy strace valgrind wsl libxml2-utils uuid-runtime
        "${viewers[@]}")
windows=(googletest g++-mingw-w64-x86-64-posix libz-mingw-w64-dev wine wine64 wixl msitools)
bench=(libbenchmark-dev libevent-dev libuv1-dev libspdlog-dev libfmt-dev libmodpbase64-dev
       libprotobuf-dev protobuf-compiler libflatbuffers-dev flatbuffers-compiler
       libmsgpack-cxx-dev libcbor-dev socat haproxy nginx libnginx-mod-stream
       python3-matplotlib)

case "${1:-}" in
  demo) wanted=("${build[@]}" "${clients[@]}") ;;
  quick) wanted=("${build[@]}" "${clients[@]}" "${unit[@]}") ;;
  dash) wanted=("${build[@]}" "${clients[@]}" wsl) ;;
  kvm) wanted=("${build[@]}" "${clients[@]}" "${viewers[@]}") ;;
  bench) wanted=("${build[@]}" "${clients[@]}" "${checks[@]}" "${windows[@]}" "${bench[@]}") ;;
  "") wanted=("${build[@]}" "${clients[@]}" "${checks[@]}" "${windows[@]}") ;;
  *) echo "usage: setup.sh [quick|bench|demo|dash|kvm]" >&2; exit 2 ;;
esac

missing=()
for package in "${wanted[@]}"; do
  status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)
  [ "$status" = installed ] || missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0

echo "setup: installing ${missing[*]}"
root=()
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "setup: needs root, or sudo, to install them" >&2
    exit 1
  fi
  root=(sudo)
fi
log=$(mktemp)
trap 'rm -f "$log"' EXIT
quietly() {
  # nginx and haproxy are wanted as programs: nothing is started by their installation.
  if ! "${root[@]}" env DEBIAN_FRONTEND=noninteractive RUNLEVEL=1 "$@" >"$log" 2>&1; then
    tail -n 30 "$log" >&2
    echo "setup: failed: $*" >&2
    exit 1
  fi
}
quietly apt-get update
quietly apt-get install -y --no-install-recommends "${missing[@]}"
