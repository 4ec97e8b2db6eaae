# Sourced by scripts/package --deb: the two Debian packages, vantrel_VERSION_amd64.deb (the
# program) and vantrel-service_VERSION_amd64.deb (the web service as a system service), made
# with dpkg-deb from the build's binaries and packaging/. Their dependencies come from the
# binaries (dpkg-shlibdeps); the man pages from each program's --help (help2man), so the two
# cannot drift apart.
#
# debs_make BUILD_DIR VERSION OUT_DIR: prints the two packages' paths.

debs_maintainer="Quillfen <vantrel@quillfen.org>"

# debs_stage_doc ROOT PACKAGE VERSION STAMP: the copyright file and a one-entry changelog (named
# as a native package's: there is no Debian source apart from ours).
debs_stage_doc() {
  local root=$1 package=$2 version=$3 stamp=$4 doc
  doc=$root/usr/share/doc/$package
  install -d "$doc"
  install -m 644 packaging/copyright "$doc/copyright"
  printf '%s (%s) stable; urgency=medium\n\n  * Release %s.\n\n -- %s  %s\n' \
    "$package" "$version" "$version" "$debs_maintainer" \
    "$(LC_ALL=C date -u -R -d "@$stamp")" | gzip -9n >"$doc/changelog.gz"
}

# debs_man BINARY NAME SUMMARY ROOT VERSION: the man page made from BINARY --help.
debs_man() {
  local binary=$1 name=$2 summary=$3 root=$4 version=$5
  install -d "$root/usr/share/man/man1"
  # The program's --help needs no display, but Qt's platform plugin is loaded all the same.
  # help2man dates the page SOURCE_DATE_EPOCH.
  SOURCE_DATE_EPOCH=$stamp QT_QPA_PLATFORM=offscreen help2man --no-info --no-discard-stderr \
    --section=1 --name="$summary" --version-string="$version" "$binary" |
    gzip -9n >"$root/usr/share/man/man1/$name.1.gz"
}

# debs_control ROOT PACKAGE VERSION SECTION DESCRIPTION DEPENDS EXTRA_FIELDS BINARY...:
# DEBIAN/control with DEPENDS and the libraries' packages dpkg-shlibdeps finds for the binaries.
debs_control() {
  local root=$1 package=$2 version=$3 section=$4 description=$5 more=$6 extra=$7
  shift 7
  local work depends size
  work=$(mktemp -d)
  mkdir "$work/debian"
  printf 'Source: vantrel\n\nPackage: %s\nArchitecture: amd64\n' "$package" >"$work/debian/control"
  depends=$(cd "$work" && dpkg-shlibdeps -O "${@/#/$root/}" 2>/dev/null |
    sed -n 's/^shlibs:Depends=//p')
  rm -rf "$work"
  [ -n "$depends" ] || { echo "scripts/package: dpkg-shlibdeps found no dependencies" >&2; return 1; }
  size=$(du -sk --exclude=DEBIAN "$root" | cut -f1)
  install -d "$root/DEBIAN"
  {
    printf 'Package: %s\nVersion: %s\nArchitecture: amd64\nMaintainer: %s\n' \
      "$package" "$version" "$debs_maintainer"
    printf 'Installed-Size: %s\nDepends: %s%s\n' "$size" "${more:+$more, }" "$depends"
    [ -z "$extra" ] || printf '%s\n' "$extra"
    printf 'Section: %s\nPriority: optional\nHomepage: https://vantrel.app\n' "$section"
    printf 'Description: %s\n' "$description"
  } >"$root/DEBIAN/control"
}

debs_build() {
  local root=$1 out=$2
  # Same inputs, same bytes: every date the last commit's.
  (cd "$root" && find . -path ./DEBIAN -prune -o -type f -printf '%P\0' | LC_ALL=C sort -z |
    xargs -0 md5sum >DEBIAN/md5sums)
  find "$root" -exec touch -h -d "@$stamp" {} +
  # xz for releases; the tests ask for gzip (DEBS_COMPRESSION), which packs a sanitizer build's
  # binaries in seconds rather than minutes.
  dpkg-deb --root-owner-group -Z"${DEBS_COMPRESSION:-xz}" --build "$root" "$out" >/dev/null
  echo "$out"
}

debs_make() {
  local build=$1 version=$2 out=$3
  local stage root
  stamp=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct 2>/dev/null || date +%s)}
  stage=$(mktemp -d "$out/.debs-XXXXXX")
  # shellcheck disable=SC2064
  trap "rm -rf '$stage'" RETURN

  # The program.
  root=$stage/vantrel
  install -d "$root/usr/bin" "$root/usr/share/applications" \
    "$root/usr/share/icons/hicolor/scalable/apps" "$root/usr/share/vantrel"
  # Stripped as Debian's own packages are (the signed archive keeps the symbols).
  strip --strip-unneeded --remove-section=.comment --remove-section=.note \
    -o "$root/usr/bin/vantrel" "$build/bin/vantrel"
  chmod 755 "$root/usr/bin/vantrel"
  install -m 644 src/app/vantrel.desktop "$root/usr/share/applications/vantrel.desktop"
  install -m 644 src/app/vantrel.svg "$root/usr/share/icons/hicolor/scalable/apps/vantrel.svg"
  # What tells the program that dpkg owns it, so that it never replaces itself.
  printf 'This copy of Vantrel belongs to the package manager; update it with the package.\n' \
    >"$root/usr/share/vantrel/package-managed"
  chmod 644 "$root/usr/share/vantrel/package-managed"
  debs_man "$build/bin/vantrel" vantrel "keep an instant replay of the screen" "$root" "$version"
  debs_stage_doc "$root" vantrel "$version" "$stamp"
  # Loaded at run time, so dpkg-shlibdeps cannot see them: Qt's X11 and Wayland platform
  # plugins, and its FFmpeg backend for the sound cues.
  debs_control "$root" vantrel "$version" video \
    "instant replay of the screen
 Vantrel keeps the last 15 to 120 seconds of the screen and the system's sound
 in memory and, at one key press from any application, writes them into an MP4
 without encoding them again. It lives in the tray, answers vantrel:// links,
 and can share clips through a Vantrel web service." \
    "" "$(printf 'Recommends: %s\nSuggests: %s' \
      "qt6-qpa-plugins, qt6-wayland, libqt6multimedia6, libsecret-1-0, fonts-dejavu-core, xdg-utils" \
      "gnome-keyring, xdg-desktop-portal")" \
    usr/bin/vantrel
  debs_build "$root" "$out/vantrel_${version}_amd64.deb"

  # The web service.
  root=$stage/vantrel-service
  install -d "$root/usr/bin" "$root/lib/systemd/system" "$root/etc/vantrel-service"
  strip --strip-unneeded --remove-section=.comment --remove-section=.note \
    -o "$root/usr/bin/vantrel-service" "$build/bin/vantrel-service"
  chmod 755 "$root/usr/bin/vantrel-service"
  install -m 644 packaging/vantrel-service.service "$root/lib/systemd/system/"
  install -m 644 packaging/vantrel-service.conf "$root/etc/vantrel-service/"
  debs_man "$build/bin/vantrel-service" vantrel-service \
    "the web service Vantrel signs in to and shares clips through" "$root" "$version"
  debs_stage_doc "$root" vantrel-service "$version" "$stamp"
  debs_control "$root" vantrel-service "$version" web \
    "web service for Vantrel: sign-in, clip sharing, releases
 vantrel-service is the server the Vantrel program signs in to, uploads clips
 to and shares them from, and that offers its releases. This package runs it
 as a hardened system service under its own user, with its data in
 /var/lib/vantrel-service and its settings in /etc/vantrel-service." \
    "passwd" "" usr/bin/vantrel-service
  local script
  for script in postinst prerm postrm; do
    install -m 755 "packaging/vantrel-service.$script" "$root/DEBIAN/$script"
  done
  printf '/etc/vantrel-service/vantrel-service.conf\n' >"$root/DEBIAN/conffiles"
  debs_build "$root" "$out/vantrel-service_${version}_amd64.deb"
}
