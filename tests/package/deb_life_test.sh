#!/bin/sh
# Installs the Debian packages, uses them, installs them again and newer ones, removes and
# purges them.
#
#   deb_life_test.sh ROOT SOURCE_FOLDER BUILD_FOLDER
#
# ROOT is where: empty, an empty root beside what this host has; or debian, a bare Debian
# of its own with a compiler, made by debootstrap. The status is 77 where the host does not
# allow it, for the reason printed.
set -eu
where=$1
source=$2
build=$3

# Mounts and locks are then in a world that ends with this script.
if [ -z "${PACKAGE_WORLD-}" ]; then
  as_root=
  [ "$(id -u)" -eq 0 ] || as_root=--map-root-user
  # shellcheck disable=SC2086 # there may be none
  if PACKAGE_WORLD=$(unshare $as_root --mount --ipc true 2>&1); then
    export PACKAGE_WORLD=own
    exec unshare $as_root --mount --ipc "$0" "$where" "$source" "$build"
  fi
fi

# shellcheck source=tests/package/debs.sh
. "$source/tests/package/debs.sh"

# --- A life -------------------------------------------------------------------

# Each root defines install_packages, run_dpkg and run_statoverride, which take paths as the
# root has them, for packages below $debs_folder; use_packages; and remove_others, which takes
# off what came along because the packages need it.

# All in the root that must be again as it was: without what keeps account of packages,
# and what is not on its disk.
snapshot() {
  (cd "$root" && find . \( -path ./var/lib/dpkg -o -path ./var/lib/apt -o -path ./var/cache \
    -o -path ./var/log -o -path ./etc/ld.so.cache -o -path ./proc -o -path ./dev -o -path ./tmp \
    -o -path ./root \) -prune -o -type d -printf '%p %y %m %U:%G\n' -o -printf '%p %y %m %U:%G %s %l\n') |
    sort
}

# has_mode MODE FOLDER
has_mode() {
  found=$(stat --format '%a %u:%g' "$root$2")
  [ "$found" = "$1 0:0" ] || fail "$2: mode and owner are $found"
}

folders_are_safe() {
  for folder in /Library /Library/Vornix /Library/Vornix/oxa /var/lib/vornix; do
    has_mode 755 $folder
  done
  has_mode 700 /Library/Vornix/oxa/scratch
  has_mode 750 /var/lib/vornix/oxa
  has_mode 700 /var/lib/vornix/oxa/keys
  has_mode 750 /var/lib/vornix/oxa/log
  has_mode 750 /var/lib/vornix/updater
}

# What daemons leave, some of it perhaps there already.
make_data() {
  for file in var/lib/vornix/oxa/keys/type3.key var/lib/vornix/oxa/log/daemon.log \
    var/lib/vornix/oxa/agent.ini var/lib/vornix/updater/state Library/Vornix/oxa/scratch/left; do
    [ -e "$root/$file" ] || echo "$file" >"$root/$file"
    (cd "$root" && sha256sum "$file")
  done >"$work/data"
}

data_is_there() {
  (cd "$root" && sha256sum --quiet --check "$work/data") || fail "data are lost when the packages are $1"
}

installed_version() {
  dpkg-query --admindir "$root/var/lib/dpkg" --show --showformat '${Version}' libvrxutil1
}

# What somebody has opened or taken is closed, unless the administrator says so.
install_again() {
  chmod 777 "$root/Library/Vornix/oxa/scratch"
  # A world of one user, root, has no other group.
  chown 0:1 "$root/var/lib/vornix/oxa/keys" 2>/dev/null ||
    awk '{ exit $3 != 1 }' /proc/self/gid_map
  chmod 711 "$root/var/lib/vornix/updater"
  run_statoverride --add root root 0711 /var/lib/vornix/updater
  run_dpkg --install "$@"
  has_mode 700 /Library/Vornix/oxa/scratch
  has_mode 700 /var/lib/vornix/oxa/keys
  has_mode 711 /var/lib/vornix/updater
  run_statoverride --remove /var/lib/vornix/updater
  run_dpkg --install "$@"
  folders_are_safe
  data_is_there 'installed again'
}

# The same packages under a later version.
upgrade() {
  later=$version+1
  set --
  for name in $names; do
    dpkg-deb --raw-extract "$(deb_of "$name")" "$work/tree"
    sed -i "s/$version/$later/" "$work/tree/DEBIAN/control"
    dpkg-deb --build "$work/tree" "$root/tmp/$name.later" >/dev/null
    rm -r "$work/tree"
    set -- "$@" "$debs_folder/$name.later"
  done
  run_dpkg --install "$@"
  rm "$root"/tmp/*.later
  [ "$(installed_version)" = "$later" ] || fail "the version is $(installed_version), not $later"
  folders_are_safe
  data_is_there upgraded
}

run_on_packages() {
  # shellcheck disable=SC2086 # names are words
  run_dpkg "$1" $names
}

remove_packages() {
  run_on_packages --remove
  left=$(find "$root/usr" -name '*vrx*' -o -name '*zulral*')
  [ -z "$left" ] || fail "these stay after removal: $left"
  ! grep -qs libvrxutil "$root/etc/ld.so.cache" || fail "the loader's cache still has the libraries"
  data_is_there removed
}

# Another version of the libraries, which programs may need beside this one, has the same
# folders.
purge_beside_next_libraries() {
  mkdir -p "$work/next/DEBIAN" "$work/next/var/lib/vornix/oxa"
  chmod 750 "$work/next/var/lib/vornix/oxa"
  cat >"$work/next/DEBIAN/control" <<'END'
Package: libvrxutil2
Version: 2
Architecture: all
Maintainer: nobody
Description: next
END
  dpkg-deb --root-owner-group --build "$work/next" "$root/tmp/next.deb" >/dev/null
  run_dpkg --install "$debs_folder/next.deb"
  rm "$root/tmp/next.deb"
  run_on_packages --purge
  data_is_there 'purged beside others of the libraries'
  install_packages "$@"
  run_dpkg --purge libvrxutil2
}

semaphore_sets() { ipcs --semaphores | awk '/^0x/ { print $1 }' | sort; }

purge_packages() {
  run_on_packages --purge
  remove_others
  snapshot | diff "$work/before" - || fail 'purging leaves something (>) or takes too much (<)'
  semaphore_sets | diff "$work/sets" - || fail 'purging leaves semaphores (>)'
  left=$(find "$root/var/lib/dpkg/info" -name '*vrxutil*')
  [ -z "$left" ] || fail "dpkg still has $left"
  ! grep -qE '^Package: .*vrxutil' "$root/var/lib/dpkg/status" || fail 'dpkg still knows the packages'
}

# What others have put beside the data stays.
purge_beside_others() {
  install_packages "$@"
  mkdir "$root/Library/Vornix/others" "$root/var/lib/vornix/others"
  run_on_packages --purge
  remove_others
  rmdir "$root/Library/Vornix/others" "$root/var/lib/vornix/others" || fail 'the data of others are gone'
  rmdir "$root/Library/Vornix" "$root/Library" "$root/var/lib/vornix" ||
    fail 'purging leaves more than the folders of others'
}

# What a link in a folder's place leads to keeps its owner and mode.
install_over_a_link() {
  mkdir -p "$root/var/lib/vornix/oxa" "$root/var/lib/vornix-others"
  chmod 755 "$root/var/lib/vornix-others"
  ln -s ../../vornix-others "$root/var/lib/vornix/oxa/keys"
  install_packages "$@"
  [ "$(stat -c %a "$root/var/lib/vornix-others")" = 755 ] || fail 'installing changes what a link leads to'
  run_on_packages --purge
  remove_others
  rmdir "$root/var/lib/vornix-others" || fail 'purging empties what a link leads to'
}

# live DEB...
live() {
  snapshot >"$work/before"
  semaphore_sets >"$work/sets"
  install_packages "$@"
  folders_are_safe
  use_packages
  make_data
  install_again "$@"
  upgrade
  remove_packages
  install_packages "$@"
  data_is_there 'installed after removal'
  purge_beside_next_libraries "$@"
  purge_packages
  purge_beside_others "$@"
  install_over_a_link "$@"
  snapshot | diff "$work/before" - || fail 'something is left'
}

# --- An empty root: only these packages, on top of what the host has ----------

use_in_empty_root() {
  readme_program
  multiarch=$root$libraries_folder
  # shellcheck disable=SC2046 # the flags are words
  g++ -std=c++17 "$work/sample.cpp" -o "$work/sample" \
    $(PKG_CONFIG_LIBDIR=$multiarch/pkgconfig pkg-config --cflags --libs vrxutil)
  LD_LIBRARY_PATH=$multiarch "$work/sample" >"$work/output" 2>"$work/records" || true
  printed_as_shown "$work/output" "$work/records"
  mkdir "$work/tool"
  (cd "$work/tool" && LD_LIBRARY_PATH=$multiarch VRX_DATA_DIR=$root/var/lib/vornix/oxa PATH=$root/usr/bin:$PATH \
    "$source/tests/package/use_tool.sh" ". '$root/usr/share/bash-completion/completions/vrxtool'") ||
    fail 'the tool does not work'
}

# The host's packages count as installed there, so that dependencies are checked.
make_empty_root() {
  root=$work/root
  mkdir -p "$root/usr/lib" "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" \
    "$root/var/lib/dpkg/triggers" "$root/var/log" "$root/tmp"
  touch "$root/usr/lib/somebody"  # dpkg removes folders that nothing is in
  awk -v RS= -v ORS='\n\n' '!/^Package: (libvrxutil|vrxutil)/' /var/lib/dpkg/status \
    >"$root/var/lib/dpkg/status"
}

live_in_empty() {
  [ "$(id -u)" -eq 0 ] || skip "not root: $PACKAGE_WORLD"
  make_empty_root
  debs_folder=$root/tmp
  # There is no shell in the root for the packages' scripts.
  run_dpkg() {
    dpkg --root="$root" --log="$root/var/log/dpkg.log" --force-script-chrootless "$@" >"$work/log" 2>&1 ||
      fail "$(cat "$work/log")"
  }
  run_statoverride() { dpkg-statoverride --root "$root" "$@"; }
  install_packages() { run_dpkg --install "$@"; }
  use_packages() { use_in_empty_root; }
  remove_others() { :; }
  live "$library_deb" "$headers_deb" "$tools_deb"
}

# --- A Debian of its own, with a compiler and nothing else --------------------

# The suite and the archive that this host itself installs from.
debian_source() {
  # shellcheck source=/dev/null
  suite=$(. /etc/os-release && echo "${VERSION_CODENAME-}")
  # shellcheck disable=SC2016 # the variables are those of apt-get
  archive=$(apt-get indextargets --format '$(CODENAME) $(COMPONENT) $(REPO_URI)' 'Created-By: Packages' |
    sed -n "s/^$suite main //p" | head -n 1)
  if [ -z "$suite" ] || [ -z "$archive" ]; then skip 'apt-get names no archive of Debian'; fi
}

# Made once for a build folder, and kept as long as tests leave it as it was.
make_debian() {
  root=$build/package-debian
  if [ ! -e "$root.complete" ]; then
    debian_source
    rm -rf --one-file-system "$root"
    debootstrap --variant=minbase --include=g++,pkg-config,cmake,make,man-db,bash-completion \
      "$suite" "$root" "$archive" >"$work/log" 2>&1 || skip "debootstrap has failed: $(tail -n 1 "$work/log")"
    rm -f "$root"/var/cache/apt/archives/*.deb
    touch "$root.complete"
  fi
  in_debian apt-get --quiet --error-on=any update >"$work/log" 2>&1 ||
    skip "the archive of Debian cannot be reached: $(tail -n 1 "$work/log")"
  rm "$root.complete"
}

in_debian() {
  chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 \
    DEBIAN_FRONTEND=noninteractive "$@" </dev/null
}

quietly_in_debian() { in_debian "$@" >"$work/log" 2>&1 || fail "$* in the Debian: $(cat "$work/log")"; }

use_in_debian() {
  tests=$source/tests/package
  readme_program
  mkdir "$root/root/use"
  cp -r "$work/sample.cpp" "$tests/daemon.cpp" "$tests/consumer" "$tests/use_tool.sh" "$tests/use_packages.sh" \
    "$root/root/use"
  command=$(grep '^g++ ' "$source/README.md")
  quietly_in_debian sh /root/use/use_packages.sh /root/use "$command" "$consumer_prints"
  printed_as_shown "$root/root/use/output" "$root/root/use/records"
  rm -r "$root/root/use"
  folders_are_safe
}

live_in_debian() {
  # A world of one user, root, cannot hold those of a Debian.
  if [ "$(id -u)" -ne 0 ] || awk '{ exit $3 != 1 }' /proc/self/uid_map; then
    skip 'a Debian of its own is for root'
  fi
  [ "$PACKAGE_WORLD" = own ] || skip "it would leave mounts: $PACKAGE_WORLD"
  need debootstrap
  make_debian
  mount -t proc proc "$root/proc" || skip 'no /proc can be mounted'
  debs_folder=/tmp
  cp "$library_deb" "$headers_deb" "$tools_deb" "$root/tmp"
  run_dpkg() { quietly_in_debian dpkg "$@"; }
  run_statoverride() { quietly_in_debian dpkg-statoverride "$@"; }
  install_packages() { quietly_in_debian apt-get --quiet --yes --no-install-recommends install "$@"; }
  remove_others() { quietly_in_debian apt-get --quiet --yes autoremove --purge; }
  use_packages() { use_in_debian; }
  live "/tmp/${library_deb##*/}" "/tmp/${headers_deb##*/}" "/tmp/${tools_deb##*/}"
  rm -f "$root"/tmp/*.deb
  touch "$root.complete"
}

need_packages
"live_in_$where"
