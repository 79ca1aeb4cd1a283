#!/bin/sh
# Makes the Debian packages and looks at them.
#
#   deb_test.sh CHECK SOURCE_FOLDER BUILD_FOLDER
#
# CHECK is build, which makes the packages, or one of those that need them: contents,
# dependencies, lintian. The status is 77 where the host does not allow the check, for the
# reason printed.
set -eu
check=$1
source=$2
build=$3
# shellcheck source=tests/package/debs.sh
. "$source/tests/package/debs.sh"

check_build() {
  need cmake ninja g++ dpkg-buildflags dpkg-shlibdeps file gzip
  "$source/script/package" "$build/package-build"
}

# --- What the packages hold ---------------------------------------------------

# listing DEB: type, mode, owner and path of all that is in it, and where links lead.
listing() {
  dpkg-deb --fsys-tarfile "$1" | tar --list --verbose --numeric-owner --file - |
    awk '{ print $1, $2, substr($0, index($0, $6)) }' | sed 's/ \.\// \//; s/\/$//' |
    sort -k 3
}

# The folders themselves: what the system has anyway.
without_usr_folders() { grep -vE '^drwxr-xr-x 0/0 (/usr.*|)$'; }

# documents PACKAGE
documents() {
  for file in changelog.Debian.gz changelog.gz copyright; do
    echo "-rw-r--r-- 0/0 /usr/share/doc/$1/$file"
  done
  echo "-rw-r--r-- 0/0 /usr/share/lintian/overrides/$1"
}

expect_libraries() {
  for name in vrxutil vrxcomn zulral; do
    echo "-rw-r--r-- 0/0 $libraries_folder/lib$name.so.${version%-*}"
    echo "lrwxrwxrwx 0/0 $libraries_folder/lib$name.so.1 -> lib$name.so.${version%-*}"
  done
  cat <<'END'
drwxr-xr-x 0/0 /Library
drwxr-xr-x 0/0 /Library/Vornix
drwxr-xr-x 0/0 /Library/Vornix/oxa
drwx------ 0/0 /Library/Vornix/oxa/scratch
drwxr-xr-x 0/0 /var
drwxr-xr-x 0/0 /var/lib
drwxr-xr-x 0/0 /var/lib/vornix
drwxr-x--- 0/0 /var/lib/vornix/oxa
drwx------ 0/0 /var/lib/vornix/oxa/keys
drwxr-x--- 0/0 /var/lib/vornix/oxa/log
drwxr-x--- 0/0 /var/lib/vornix/updater
END
}

expect_headers() {
  for folder in "$source/include" "$source"/platform/*/include; do
    (cd "$folder" && find . -type f | sed 's/^\./-rw-r--r-- 0\/0 \/usr\/include/')
  done
  for name in vrxutil vrxcomn zulral; do
    echo "lrwxrwxrwx 0/0 $libraries_folder/lib$name.so -> lib$name.so.1"
  done
  for name in Config ConfigVersion Targets Targets-release; do
    echo "-rw-r--r-- 0/0 $libraries_folder/cmake/vrxutil/vrxutil$name.cmake"
  done
  echo "-rw-r--r-- 0/0 $libraries_folder/pkgconfig/vrxutil.pc"
}

expect_tools() {
  cat <<'END'
-rwxr-xr-x 0/0 /usr/bin/vrxtool
-rw-r--r-- 0/0 /usr/share/bash-completion/completions/vrxtool
-rw-r--r-- 0/0 /usr/share/man/man1/vrxtool.1.gz
END
}

# same_listing DEB PACKAGE EXPECT: it holds what EXPECT tells, its documents, and nothing else.
same_listing() {
  { $3 && documents "$2"; } | sort -k 3 >"$work/expected"
  listing "$1" | without_usr_folders >"$work/held"
  diff "$work/expected" "$work/held" || fail "$1 holds other files than expected (<)"
}

check_contents() {
  same_listing "$library_deb" libvrxutil1 expect_libraries
  same_listing "$headers_deb" libvrxutil-dev expect_headers
  same_listing "$tools_deb" vrxutil-tools expect_tools
}

# --- What they need -----------------------------------------------------------

# packages_behind FOLDER: the packages with the libraries that those in the folder and the
# programs there name as needed.
packages_behind() {
  find "$1" -type f -exec readelf --dynamic --wide {} + 2>/dev/null |
    sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort -u | grep -vE '^lib(vrxutil|vrxcomn|zulral)\.so\.1$' |
    # Below /lib or /usr/lib, by the name from before these became one, or by the one after.
    sed "s|^|*${libraries_folder#/usr}/|" | xargs dpkg-query --search | sed 's/:.*//' | sort -u
}

# dependencies DEB: the packages that it says it needs, those of this source left out. Some
# names stand for a package, as for a library and the version of what it is built over.
dependencies() {
  dpkg-deb --field "$1" Depends | tr ',' '\n' | sed 's/^ *//; s/ .*//' | grep -v '^libvrxutil' \
    >"$work/names" || true
  dpkg-query --show --showformat '${Package} ${Package} ${Provides}\n' | tr -d ',' |
    awk 'NR == FNR { named[$1]; next } { for (i = 2; i <= NF; ++i) if ($i in named) print $1 }' \
      "$work/names" - | sort -u
}

check_dependencies() {
  for deb in "$library_deb" "$tools_deb"; do
    dpkg-deb --extract "$deb" "$work/tree"
    packages_behind "$work/tree" >"$work/expected"
    dependencies "$deb" | diff "$work/expected" - || fail "$deb needs other packages than expected (<)"
    rm -r "$work/tree"
  done
  same="libvrxutil1 (= $version)"
  [ "$(dpkg-deb --field "$headers_deb" Depends)" = "$same" ] || fail "libvrxutil-dev needs not just $same"
  dpkg-deb --field "$tools_deb" Depends | tr ',' '\n' | grep -q "^ *$same$" || fail "vrxutil-tools needs not $same"
  # What others' programs come to depend on.
  for name in vrxcomn vrxutil zulral; do
    echo "lib$name 1 libvrxutil1 (>= $version)"
  done >"$work/expected"
  dpkg-deb --info "$library_deb" shlibs | sort | diff "$work/expected" - || fail 'wrong shlibs'
}

check_lintian() {
  need lintian
  # It leaves files where temporary ones are.
  TMPDIR=$work lintian --allow-root --display-info --tag-display-limit 0 "$packages"/*.deb >"$work/tags" 2>&1 ||
    true
  grep -vE '^(N: |running with root privileges)' "$work/tags" && fail 'lintian has found something'
  return 0
}

[ "$check" = build ] || need_packages
"check_$check"
