#!/bin/bash
# Collects the notices and licence texts of the libraries that the built files contain. They come from the Debian packages with
# which the files were built: packaging/licences.sh FOLDER PACKAGE...
set -euo pipefail
export LC_ALL=C
folder=${1:?the folder is missing}
shift
mkdir -p "$folder"

sources=
for package in "$@"; do
  package=$(dpkg-query -W -f '${binary:Package}\n' "$package" | head -n 1)
  package=${package%%:*}
  cp -L "/usr/share/doc/$package/copyright" "$folder/$package.txt"
  sources+=$(dpkg-query -W -f '  ${source:Package} (= ${source:Version})\n' "$package")$'\n'
  built=$(dpkg-query -W -f '${Built-Using}' "$package") # sources that its own package does not contain
  [[ -z $built ]] || sources+=$(sed 's/^/  /; s/, /\n  /g' <<<"$built")$'\n'
done
# The notices refer to licence texts that every Debian system has.
for text in $(cat "$folder"/*.txt | grep -o '/usr/share/common-licenses/[A-Za-z0-9.-]*[A-Za-z0-9]' | sort -u); do
  cp -L "$text" "$folder/$(basename "$text").txt"
done

cat >"$folder/README.txt" <<END
TavrinDSCLibrary.dll and the programs contain parts of other projects, linked statically. The files in
this folder are the notices and licence texts of those projects, as their Debian packages give them.
/usr/share/common-licenses/NAME in a notice is the file NAME.txt here.

The sources of these parts are the following Debian source packages and versions:

$(sort -u <<<"${sources%$'\n'}")

Get one on Debian with

  apt-get source NAME=VERSION

To use a changed version of a library, install it in place of the
packaged one (below /usr/x86_64-w64-mingw32) and build Tavrin again from its sources:

  cmake --preset windows && cmake --build --preset windows

The licence of Tavrin itself is for its owner to give.
END
