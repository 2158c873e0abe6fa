#!/usr/bin/env bash
# Unpacks packages of a Debian suite and all their dependencies into a folder; installs nothing.
#
#   scripts/unpack_packages.sh FOLDER SUITE ARCHITECTURE PACKAGE...
set -euo pipefail

folder=$(mkdir -p "$1" && realpath "$1") suite=$2 architecture=$3
shift 3
# The machine's own mirror, whatever its release.
mirror=$(apt-get indextargets --format '$(REPO_URI) $(CODENAME)' 'Created-By: Packages' |
  awk -v own="$(. /etc/os-release && echo "$VERSION_CODENAME")" '$2 == own {print $1; exit}')
[ -n "$mirror" ] || { echo "apt has no source for this machine's release" >&2; exit 1; }

# A separate apt, as on a machine without any package.
apt=$folder/.apt
mkdir -p "$apt"/{etc/apt.conf.d,lists/partial,archives/partial}
: >"$apt/status"
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
echo "deb [arch=$architecture signed-by=$keyring] $mirror $suite main" >"$apt/etc/sources.list"
cat >"$apt/apt.conf" <<END
Dir::Etc "$apt/etc";
Dir::State "$apt";
Dir::State::status "$apt/status";
Dir::Cache "$apt";
APT::Architecture "$architecture";
APT::Architectures {"$architecture";};
APT::Install-Recommends "false";
APT::Sandbox::User "root";
Acquire::Languages "none";
Acquire::Check-Valid-Until "false"; // the index of an old mirror may have expired
END
export APT_CONFIG=$apt/apt.conf
apt-get update -q >"$apt/log" 2>&1 && apt-get install -q -y --download-only "$@" >>"$apt/log" 2>&1 ||
  { tail -n 5 "$apt/log" >&2; exit 1; }
for package in "$apt"/archives/*.deb; do
  dpkg-deb -x "$package" "$folder"
done
rm -rf "$apt"
