#!/usr/bin/env bash
# Builds the Debian packages with README's own commands in a fresh Debian (debootstrap), builds and runs programs there
# against the installed packages, and installs and purges the packages in a second Debian that has nothing else. If the
# script cannot make a fresh Debian, it says why, builds the packages here and unpacks them into a folder.
set -euo pipefail
cd "$(dirname "$0")/.."

work=$(mktemp -d)
roots=$work/roots
finish() {
  cd /
  # Besides the tmpfs, the mounts that an interrupted debootstrap leaves.
  for mounted in $(awk -v work="$work/" 'index($2, work) == 1 {print $2}' /proc/mounts | sort -r); do
    umount "$mounted" || umount -l "$mounted"
  done
  rm -rf --one-file-system "$work"
}
trap finish EXIT
trap 'exit 130' INT TERM

# Makes $roots/bare; sets `reason` if that is not possible.
make_root() {
  local suite mirror bare=$roots/bare
  [ "$(id -u)" -eq 0 ] || { reason="not root"; return 1; }
  command -v debootstrap >/dev/null || { reason="no debootstrap"; return 1; }
  suite=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
  # The machine's own mirror for its release.
  mirror=$(apt-get indextargets --format '$(REPO_URI) $(CODENAME)' 'Created-By: Packages' |
    awk -v suite="$suite" '$2 == suite {print $1; exit}')
  [ -n "$mirror" ] || { reason="apt has no source for '$suite'"; return 1; }
  # In memory if possible: dpkg syncs every file, and a busy disk takes minutes to delete them.
  mkdir "$roots"
  mount -t tmpfs -o size=4g tmpfs "$roots" 2>"$work/mount.log" || true
  if ! debootstrap --variant=minbase "$suite" "$bare" "$mirror" >"$work/debootstrap.log" 2>&1; then
    reason="debootstrap failed: $(tail -n 1 "$work/debootstrap.log")"
    return 1
  fi
  # Packages ask no questions there and start no server.
  echo 'APT::Get::Assume-Yes "true"; APT::Install-Recommends "false";' \
    >"$bare/etc/apt/apt.conf.d/90check"
  printf '#!/bin/sh\nexit 101\n' >"$bare/usr/sbin/policy-rc.d"
  chmod +x "$bare/usr/sbin/policy-rc.d"
}

# Runs a command in a root, in /root/libruvo if that exists; shows the end of its output if it fails.
within() {
  local root=$roots/$1
  shift
  chroot "$root" env -u TMPDIR DEBIAN_FRONTEND=noninteractive \
    sh -c 'cd /root/libruvo 2>/dev/null || cd /root; exec "$@"' sh "$@" >"$work/log" 2>&1 ||
    { tail -n 20 "$work/log" >&2; return 1; }
}

# The block of README that builds the packages.
readme_commands() {
  awk '/^ *```sh$/ {shown = 1; block = ""; next}
       /^ *```/    {if (shown && block ~ /--preset package/) printf "%s", block; shown = 0; next}
       shown       {sub(/^ +/, ""); block = block $0 "\n"}' README.md
}

# Every file except those that apt, dpkg and the loader maintain.
files_of() {
  (cd "$roots/$1" &&
    find . -xdev \( -path ./var/cache -o -path ./var/log -o -path ./var/lib/apt -o -path ./root \) -prune \
      -o ! -path './var/lib/dpkg/*-old' -print | sort)
}

# Builds and runs the package's examples against the package. $1: where it is unpacked, $2: a folder to work in.
cat >"$work/consume.sh" <<'SH'
set -eu
examples=$1/usr/share/doc/libruvo-dev/examples
link=-Wl,-rpath-link,$1/usr/lib/$(cc -print-multiarch)
cmake -G Ninja -S "$examples/installed_package" -B "$2/build"
cmake --build "$2/build"
"$2/build/program"
"$2/build/program_17"
cmake -G Ninja -S "$examples" -B "$2/hosts"
cmake --build "$2/hosts"
cc -std=c99 -Wall -Werror "$examples/installed_package/program.c" -o "$2/program_c" \
  $(pkg-config --cflags --libs ruvo stream_log) "$link"
"$2/program_c"
c++ "$examples/log_file_host.cpp" -o "$2/log_file_host" \
  $(pkg-config --cflags --libs ruvo stream_log) "$link"
"$1/usr/bin/ruvo_cli" --version

# The targets of the guides' links must exist.
cd "$1/usr/share/doc/ruvo-tools/docs"
grep -Eo ']\([^):]+\)' ./*.md | sed -E 's/^([^:]*):]\(([^)#]*).*/\1 \2/' | while read -r guide target; do
  [ -z "$target" ] || [ -e "$target" ] || { echo "$guide: no $target" >&2; exit 1; }
done
SH

if make_root; then
  cp -a "$roots/bare" "$roots/builder"
  mkdir "$roots/builder/root/libruvo"
  git ls-files -z --cached --others --exclude-standard |
    tar --null --files-from=- --ignore-failed-read -c 2>/dev/null | tar -C "$roots/builder/root/libruvo" -x
  commands=$(readme_commands)
  [[ $commands == *"apt install"* ]] || { echo "README.md does not show how to install packages" >&2; exit 1; }
  echo "in a fresh Debian:" $'\n'"$commands"
  within builder bash -euo pipefail -c "$commands"
  rm -rf build/package/*.deb
  mkdir -p build/package
  cp "$roots"/builder/root/libruvo/build/package/*.deb build/package/
  cp "$work/consume.sh" "$roots/builder/root/"
  within builder sh /root/consume.sh "" /root

  # Without their prerequisites the packages must be refused, not built wrong.
  for needed in file:file dpkg-dev:dpkg-shlibdeps; do
    within builder dpkg --remove --force-depends "${needed%:*}"
    if within builder cmake --preset package 2>"$work/refusal" ||
      ! grep -q "without ${needed#*:}:" "$work/refusal"; then
      echo "the build of the packages does not say that ${needed%:*} is missing" >&2
      exit 1
    fi
  done

  files_of bare >"$work/before"
  mkdir "$roots/bare/root/debs"
  cp build/package/*.deb "$roots/bare/root/debs/"
  within bare apt-get update
  within bare sh -c 'apt-get install /root/debs/*.deb'
  for tool in ruvo_cli ruvo_chaos; do
    within bare "$tool" --help   # with only the packages' dependencies
  done
  within bare apt-get purge --auto-remove libruvo1 libruvo-dev ruvo-tools
  files_of bare >"$work/after"
  diff "$work/before" "$work/after" >&2 || { echo "left behind by the packages" >&2; exit 1; }
  where="in a fresh $(. /etc/os-release && echo "$PRETTY_NAME")"
else
  echo "no fresh system ($reason): building here and unpacking"
  rm -f build/package/*.deb   # of another version, for example
  cmake --workflow --preset package >/dev/null
  root=$work/unpacked
  for deb in build/package/*.deb; do
    dpkg-deb -x "$deb" "$root"
  done
  libraries=$root/usr/lib/$(cc -print-multiarch)
  export CMAKE_PREFIX_PATH=$root/usr PKG_CONFIG_PATH=$libraries/pkgconfig LD_LIBRARY_PATH=$libraries
  sh "$work/consume.sh" "$root" "$work" >/dev/null
  where=unpacked
fi

# Only libruvo-dev, which has no binaries, may lack a dependency on the C library.
for deb in build/package/*.deb; do
  depends=$(dpkg-deb -f "$deb" Depends)
  echo "${deb##*/}: $depends"
  [[ $deb == */libruvo-dev_* || $depends == *libc6* ]] || { echo "${deb##*/} does not depend on libc6" >&2; exit 1; }
done
# --allow-root: no warning about running as root. The calls of ldconfig are those that cpack adds to the trigger.
lintian --allow-root --fail-on error,warning --suppress-tags maintscript-calls-ldconfig build/package/*.deb
echo "the packages work $where"
