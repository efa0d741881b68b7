#!/bin/bash
# Builds the Debian packages tavrin-pkcs11 and tavrin-pkcs11-dev for this machine: packaging/debian/package.sh OUT_DIR
# The build is in build/debian. The changelog's date is that of the last commit.
set -euo pipefail
export LC_ALL=C.UTF-8
top=$(cd "$(dirname "$0")/../.." && pwd)
mkdir -p "${1:?the output folder is missing}"
out=$(cd "$1" && pwd)
cd "$top"
umask 022
build=build/debian
architecture=$(dpkg --print-architecture)
modules=lib/$(dpkg-architecture -q DEB_HOST_MULTIARCH)/pkcs11 # where p11-kit and others look for modules
epoch=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct 2>/dev/null || echo 1767225600)}
export SOURCE_DATE_EPOCH=$epoch
homepage=${TAVRIN_HOMEPAGE:-https://quorvane.example/tavrin}
maintainer="${DEBFULLNAME:-Tavrin} <${DEBEMAIL:-tavrin@quorvane.example}>"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Each source is compiled alone, which shows that each includes what it uses.
cmake --preset linux -B "$build" -DTAVRIN_BUILD_TESTS=OFF -DTAVRIN_JOIN_SOURCES=OFF \
  -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR="$modules"
cmake --build "$build" --parallel "$(nproc)"
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")

main=$work/tavrin-pkcs11
dev=$work/tavrin-pkcs11-dev
DESTDIR=$main cmake --install "$build" --strip >/dev/null

# The module looks for CA certificates below /usr/share; a link there leads to /etc. The path of the log level's file contains
# a blank, which dpkg does not allow for configuration files, so scripts create and remove that file.
install -d "$main/etc/tavrin/ca-certificates" "$main/usr/share/tavrin-pkcs11/TavrinDSC" "$main/DEBIAN"
ln -s /etc/tavrin/ca-certificates "$main/usr/share/tavrin-pkcs11/TavrinDSC/Certificates"
cat >"$main/DEBIAN/postinst" <<'END'
#!/bin/sh
set -e
settings="/etc/tavrin/registry/Software/Quorvane Telemantix/Tavrin"
if [ "$1" = configure ] && [ ! -e "$settings/logLevel" ]; then
  mkdir -p "$settings"
  echo 2 >"$settings/logLevel"
  chmod 644 "$settings/logLevel"
fi
END
cat >"$main/DEBIAN/postrm" <<'END'
#!/bin/sh
set -e
if [ "$1" = purge ]; then
  rm -rf /etc/tavrin/registry
  rmdir /etc/tavrin/ca-certificates /etc/tavrin 2>/dev/null || true # what administrators put there stays
fi
END
chmod 755 "$main"/DEBIAN/post*
# README.md and CHANGELOG.md are about the source tree.
rm "$main"/usr/share/doc/tavrin-pkcs11/*.md
mv "$main"/usr/share/doc/tavrin-pkcs11/docs/* "$main/usr/share/doc/tavrin-pkcs11/"
rmdir "$main/usr/share/doc/tavrin-pkcs11/docs"

install -d "$dev/usr/share/doc/tavrin-pkcs11-dev/examples" "$dev/usr/$(dirname "$modules")"
mv "$main/usr/include" "$dev/usr/include"
mv "$main/usr/$modules/pkgconfig" "$dev/usr/$(dirname "$modules")/pkgconfig"
cp examples/*.cpp examples/*.h "$dev/usr/share/doc/tavrin-pkcs11-dev/examples/"

copyright() {
  local package
  cat <<END
Tavrin $version

Copyright: the owner of Tavrin. The licence of Tavrin itself is for its owner to give.

tavrin-tool contains the following libraries, which consist of headers only. Their notices
follow, as the Debian packages give them.
END
  for package in libcli11-dev nlohmann-json3-dev; do
    printf '\n--- %s ---\n\n' "$(dpkg-query -W -f '${source:Package} ${source:Version}' "$package")"
    cat "/usr/share/doc/$package/copyright"
  done
}
changelog() {
  printf 'tavrin-pkcs11 (%s) unstable; urgency=medium\n\n  * Release of this version.\n\n' "$version"
  printf ' -- %s  %s\n' "$maintainer" "$(date -u -R -d "@$epoch")"
}

# finish FOLDER SECTION DESCRIPTION FIELD...: the control files, and the package.
finish() {
  local folder=$1 package document field
  package=$(basename "$folder")
  document=$folder/usr/share/doc/$package
  install -d "$folder/DEBIAN" "$document"
  copyright >"$document/copyright"
  changelog | gzip -9n >"$document/changelog.gz"
  find "$folder/usr/share/man" -type f -exec gzip -9n {} + 2>/dev/null || true
  find "$folder/usr" -name '*.so' -exec chmod 644 {} +
  {
    printf 'Package: %s\nSource: tavrin-pkcs11\nVersion: %s\nArchitecture: %s\n' "$package" "$version" "$architecture"
    printf 'Maintainer: %s\nSection: %s\nPriority: optional\nHomepage: %s\n' "$maintainer" "$2" "$homepage"
    printf 'Installed-Size: %s\n' "$(du -k -s --apparent-size --exclude=DEBIAN "$folder" | cut -f1)"
    for field in "${@:4}"; do echo "$field"; done
    printf 'Description: %s\n' "$3"
  } >"$folder/DEBIAN/control"
  (cd "$folder" && find usr -type f -print0 | LC_ALL=C sort -z | xargs -0 md5sum) >"$folder/DEBIAN/md5sums"
  find "$folder" -newermt "@$epoch" -exec touch -h -d "@$epoch" {} +
  dpkg-deb --root-owner-group --build "$folder" "$out" >/dev/null
  echo "$out/${package}_${version}_$architecture.deb"
}

# The packages that the built files depend on.
mkdir "$work/debian"
printf 'Source: tavrin-pkcs11\n\nPackage: tavrin-pkcs11\nArchitecture: any\n' >"$work/debian/control"
depends=$(cd "$work" && dpkg-shlibdeps -O -l"$main/usr/$modules" --ignore-missing-info \
  "$main"/usr/bin/tavrin-tool "$main/usr/$modules"/*.so 2>/dev/null | sed -n 's/^shlibs:Depends=//p')

finish "$main" libs "PKCS#11 modules for security tokens
 Tavrin makes a security token usable for applications that support PKCS#11
 (Cryptoki). This package has the modules, a software token that works without
 hardware, the command tavrin-tool, and the configuration by which p11-kit and
 the programs that use it find the module." \
  "Depends: $depends" "Recommends: p11-kit-modules | libp11-kit0" "Suggests: gnutls-bin, opensc"
finish "$dev" libdevel "headers and examples for Tavrin's PKCS#11 modules
 Tavrin makes a security token usable for applications that support PKCS#11
 (Cryptoki). This package has the Cryptoki headers, two example clients, and a
 pkg-config file that names the modules." \
  "Depends: tavrin-pkcs11 (= $version)" "Suggests: pkg-config"
