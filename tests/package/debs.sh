# shellcheck shell=sh disable=SC2034,SC2154 # of whoever sources this
# What the scripts that look at the Debian packages share. They define $source and $build.

packages=$build/package-build/packages
work=$(mktemp -d "$build/packages.XXXXXX")
trap 'rm -rf --one-file-system "$work"' EXIT
trap 'exit 1' HUP INT TERM
LC_ALL=C.UTF-8
PATH=$PATH:/usr/sbin:/sbin  # where dpkg finds what it needs
export LC_ALL PATH
umask 022  # dpkg refuses packages with other modes

subject=packages
# shellcheck source=tests/package/support.sh
. "$source/tests/package/support.sh"

# deb_of PACKAGE: its file.
deb_of() {
  [ ! -d "$packages" ] || find "$packages" -maxdepth 1 -name "$1_*.deb"
}

names='libvrxutil1 libvrxutil-dev vrxutil-tools'
library_deb=$(deb_of libvrxutil1)
headers_deb=$(deb_of libvrxutil-dev)
tools_deb=$(deb_of vrxutil-tools)

need_packages() {
  [ -d "$packages" ] || skip 'there are none; the check that makes them says why'
  for name in $names; do
    [ -n "$(deb_of "$name")" ] || fail "there is no $name in $packages"
  done
  version=$(dpkg-deb --field "$library_deb" Version)
}

# need TOOL...
need() {
  for tool; do
    command -v "$tool" >/dev/null || skip "there is no $tool; script/setup installs it"
  done
}

libraries_folder=/usr/lib/$(dpkg-architecture --query DEB_HOST_MULTIARCH 2>/dev/null || true)
