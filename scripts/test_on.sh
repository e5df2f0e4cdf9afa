#!/usr/bin/env bash
# Runs scripts/test.sh on another Debian, with its compilers, libraries and Wine: in a root folder of
# its own, from the files that git tracks here. Nothing of it stays. The house rules are left out:
# another clang-format lays the same code out in another way.
#   test_on.sh SUITE [words for test.sh]      for example: test_on.sh trixie
# Needs mmdebstrap, root, about 8 GB in TMPDIR (/var/tmp), and the network for the packages. With
# STEWARDRY_ROOT=FOLDER the root is made in FOLDER and kept, and a later run uses it again.
set -euo pipefail
cd "$(dirname "$0")/.."
if [ $# -lt 1 ]; then
  sed -n '2,8s/^# \{0,1\}//p' "$0" >&2
  exit 2
fi
suite=$1
shift
for tool in mmdebstrap unshare chroot; do
  command -v "$tool" >/dev/null || { echo "test_on: there is no $tool" >&2; exit 1; }
done
[ "$(id -u)" -eq 0 ] || { echo "test_on: must be root, to change the root folder" >&2; exit 1; }

root=${STEWARDRY_ROOT:-}
folder=
child=
leave() {
  [ -z "$child" ] || kill -KILL "$child" 2>/dev/null || true  # its namespaces go with it
  [ -z "$folder" ] || rm -rf --one-file-system "$folder"
}
trap leave EXIT
trap 'exit 130' INT TERM
if [ -z "$root" ]; then
  folder=$(mktemp -d "${TMPDIR:-/var/tmp}/stewardry-$suite-XXXXXX")
  root=$folder/root
fi
if [ ! -x "$root/usr/bin/apt-get" ]; then
  echo "== root folder of $suite: $root"
  mmdebstrap --quiet --variant=apt --include=ca-certificates "$suite" "$root"
  # Programs are wanted, not their services.
  printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
  chmod +x "$root/usr/sbin/policy-rc.d"
fi
rm -rf "$root/stewardry"
mkdir "$root/stewardry"
git ls-files -z | tar --null --files-from=- --create | tar --extract --directory "$root/stewardry"

# The mounts and every process go with these namespaces, however the run ends.
unshare --mount --pid --fork --kill-child bash -euc '
  root=$1
  shift
  mount --bind "$root" "$root"
  cd "$root"
  mount -t proc proc proc
  mount --rbind /sys sys
  mount --rbind /dev dev
  mount -t tmpfs -o mode=1777 tmpfs tmp
  [ -e /etc/resolv.conf ] && cp -L /etc/resolv.conf etc/resolv.conf
  exec env -i HOME=/root TERM="${TERM:-dumb}" LANG=C.UTF-8 \
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    STEWARDRY_SKIP_HOUSE=1 CI="${CI:-}" XDG_RUNTIME_DIR=/tmp \
    chroot "$root" bash -c "cd /stewardry && exec scripts/test.sh \"\$@\"" test.sh "$@"
' unshare "$root" "$@" &
child=$!
status=0
wait "$child" || status=$?
child=
exit $status
