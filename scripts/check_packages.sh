#!/usr/bin/env bash
# Builds the Debian packages, installs them with apt into a fresh Debian of its own (debootstrap), and
# builds and runs a program there against the installed package. Where that cannot be done, it says
# why and unpacks the packages into a folder instead.
set -euo pipefail
cd "$(dirname "$0")/.."

rm -f build/package/*.deb   # of another version, say
cmake --workflow --preset package >/dev/null
debs=(build/package/*.deb)
for deb in "${debs[@]}"; do
  echo "${deb##*/}: $(dpkg-deb -f "$deb" Depends)"
done

work=$(mktemp -d)
root=$work/root
finish() {
  cd /
  # Besides the tmpfs, what an interrupted debootstrap leaves mounted.
  for mounted in $(awk -v work="$work/" 'index($2, work) == 1 {print $2}' /proc/mounts | sort -r); do
    umount "$mounted" || umount -l "$mounted"
  done
  rm -rf --one-file-system "$work"
}
trap finish EXIT
trap 'exit 130' INT TERM

# Sets `reason` where there is to be no chroot.
make_root() {
  local suite mirror
  [ "$(id -u)" -eq 0 ] || { reason="not root"; return 1; }
  command -v debootstrap >/dev/null || { reason="no debootstrap"; return 1; }
  suite=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
  # The machine's own mirror of its own release.
  mirror=$(apt-get indextargets --format '$(REPO_URI) $(CODENAME)' 'Created-By: Packages' |
    awk -v suite="$suite" '$2 == suite {print $1; exit}')
  [ -n "$mirror" ] || { reason="apt has no source for '$suite'"; return 1; }
  # In memory where that may be: dpkg syncs every file, and a busy disk takes minutes to delete them.
  mkdir "$root"
  mount -t tmpfs -o size=2g tmpfs "$root" 2>"$work/mount.log" || true
  if ! debootstrap --variant=minbase "$suite" "$root" "$mirror" >"$work/debootstrap.log" 2>&1; then
    reason="debootstrap failed: $(tail -n 1 "$work/debootstrap.log")"
    return 1
  fi
}

apt_install() {
  chroot "$root" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -q -y --no-install-recommends "$@" >"$work/apt.log" 2>&1 ||
    { tail -n 20 "$work/apt.log" >&2; return 1; }
}

# Builds and runs the programs of examples/installed_package as the package has them; what differs
# between the two ways stands in the environment.
cat >"$work/consume.sh" <<'SH'
set -eu
examples=$1/usr/share/doc/libruvo-dev/examples
cmake -S "$examples/installed_package" -B "$2/build" >/dev/null
cmake --build "$2/build" >/dev/null
"$2/build/program"
"$2/build/program_17"
cc -std=c99 -Wall -Werror "$examples/installed_package/program.c" -o "$2/program_c" \
  $(pkg-config --cflags --libs ruvo) -Wl,-rpath-link,"$1/usr/lib"
"$2/program_c"
c++ "$examples/log_file_host.cpp" -o "$2/log_file_host" \
  $(pkg-config --cflags --libs ruvo stream_log) -Wl,-rpath-link,"$1/usr/lib"
"$1/usr/bin/ruvo_cli" --version
SH

if make_root; then
  cp "${debs[@]}" "$root/root/"
  apt_install "${debs[@]/#*\//./root/}"
  chroot "$root" ruvo_cli --version >/dev/null   # with what the packages depend on, and nothing else
  apt_install g++ cmake make pkg-config
  cp "$work/consume.sh" "$root/root/"
  chroot "$root" sh /root/consume.sh "" /root
  chroot "$root" apt-get purge -q -y libruvo1 >/dev/null 2>&1
  if left=$(find "$root/usr" -name '*ruvo*' | grep .); then
    echo "left behind by the packages: $left" >&2
    exit 1
  fi
  echo "the packages work in a fresh $(. /etc/os-release && echo "$PRETTY_NAME")"
else
  echo "no fresh system to install into ($reason): unpacking instead"
  root=$work/unpacked
  for deb in "${debs[@]}"; do
    dpkg-deb -x "$deb" "$root"
  done
  export CMAKE_PREFIX_PATH=$root/usr PKG_CONFIG_PATH=$root/usr/lib/pkgconfig LD_LIBRARY_PATH=$root/usr/lib
  sh "$work/consume.sh" "$root" "$work"
  echo "the packages work unpacked"
fi
