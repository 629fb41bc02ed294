#!/usr/bin/env bash
# What the Debian package is made of, checked without building it: the
# desktop entry and AppStream data as the desktop's tools read them, and an
# install into a temporary DESTDIR (as CPack does): exactly the expected
# files, intact model, icons of the right sizes, and installed programs that
# find their installed helper. A damaged model must fail the install.
#
#   install_test.sh SOURCE-DIR BUILD-DIR VERSION
set -euo pipefail
unset CMAKE_INSTALL_ALWAYS  # it would copy over the damaged model below
src=$1 build=$2 version=$3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
for tool in desktop-file-validate appstreamcli; do
  command -v "$tool" >/dev/null || { echo "SKIP: $tool is missing (scripts/setup installs it)"; exit 77; }
done

# --- The desktop entry and the AppStream data --------------------------------
desktop=$src/desktop/com.tarnbloom.app.desktop
metainfo=$src/desktop/com.tarnbloom.app.metainfo.xml
desktop-file-validate "$desktop" || fail "desktop-file-validate rejects $desktop"
appstreamcli validate --no-net "$metainfo" >"$tmp/appstream.log" 2>&1 ||
  { cat "$tmp/appstream.log" >&2; fail "appstreamcli rejects $metainfo"; }
# %U: the desktop hands tarnbloom:// links and files alike.
grep -qx 'Exec=tarnbloom-app %U' "$desktop" || fail "Exec must be 'tarnbloom-app %U'"
grep -q '^MimeType=.*x-scheme-handler/tarnbloom;' "$desktop" || fail "the entry does not take tarnbloom:// links"
grep -q "<release version=\"$version\"" "$metainfo" || fail "$metainfo has no release $version"

# --- The installed layout -----------------------------------------------------
prefix=$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$build/CMakeCache.txt")
root=$tmp/root
model=yes
if ! "$src/scripts/fetch-model" --check "$src/models" 2>/dev/null; then
  model=no
  echo "note: no intact model in $src/models; installing without it"
fi
if [ $model = yes ]; then
  DESTDIR=$root cmake --install "$build" >"$tmp/install.log" 2>&1 || { cat "$tmp/install.log" >&2; fail "install failed"; }
else
  DESTDIR=$root cmake --install "$build" --component Unspecified >"$tmp/install.log" 2>&1 ||
    { cat "$tmp/install.log" >&2; fail "install failed"; }
fi

p=$root$prefix
expected=(
  "$p/bin/tarnbloom" "$p/bin/tarnbloom-app" "$p/lib/tarnbloom/tarnbloom-decode"
  "$p/share/applications/com.tarnbloom.app.desktop" "$p/share/metainfo/com.tarnbloom.app.metainfo.xml"
  "$p/share/icons/hicolor/scalable/apps/com.tarnbloom.app.svg"
  "$p/share/man/man1/tarnbloom.1.gz" "$p/share/man/man1/tarnbloom-app.1.gz"
  "$p/share/doc/tarnbloom/copyright"
  "$p/share/nautilus-python/extensions/tarnbloom_menu.py"
)
sizes=(16 32 48 64 128 256)
for size in "${sizes[@]}"; do expected+=("$p/share/icons/hicolor/${size}x${size}/apps/com.tarnbloom.app.png"); done
[ $model = yes ] && expected+=("$p/share/tarnbloom/models/realesr-general-x4v3.param"
                                "$p/share/tarnbloom/models/realesr-general-x4v3.bin")
# Exactly these: a stray file (a helper back on PATH, a test program) fails too.
diff <(printf '%s\n' "${expected[@]}" | sort) <(find "$root" -type f -o -type l | sort) >"$tmp/layout.diff" ||
  { cat "$tmp/layout.diff" >&2; fail "the installed files differ from the package's layout (< missing, > extra)"; }
for program in "$p/bin/tarnbloom" "$p/bin/tarnbloom-app" "$p/lib/tarnbloom/tarnbloom-decode"; do
  [ -x "$program" ] || fail "$program is not executable"
done

for size in "${sizes[@]}"; do
  png=$p/share/icons/hicolor/${size}x${size}/apps/com.tarnbloom.app.png
  # IHDR: width and height as big-endian 32-bit numbers from byte 16.
  read -r -a b < <(od -An -tu1 -j16 -N8 "$png")
  width=$(( b[0] << 24 | b[1] << 16 | b[2] << 8 | b[3] ))
  height=$(( b[4] << 24 | b[5] << 16 | b[6] << 8 | b[7] ))
  [ "$width" = "$size" ] && [ "$height" = "$size" ] || fail "$png is ${width}x$height, not ${size}x$size"
done
for page in tarnbloom tarnbloom-app; do
  zcat "$p/share/man/man1/$page.1.gz" | head -1 | grep -q "^\.TH " || fail "$page.1 is not a manual page"
  if command -v groff >/dev/null; then
    zcat "$p/share/man/man1/$page.1.gz" | groff -ww -z -man 2>"$tmp/groff.log" && [ ! -s "$tmp/groff.log" ] ||
      { cat "$tmp/groff.log" >&2; fail "$page.1 is not clean roff"; }
  fi
done
desktop-file-validate "$p/share/applications/com.tarnbloom.app.desktop" || fail "the installed entry is invalid"

# --- The installed programs find the installed helper ----------------------
export TARNBLOOM_HOME=$tmp/home
unset TARNBLOOM_DECODE_HELPER TARNBLOOM_DATA_DIR
sample=$src/samples/coffee.png
"$p/bin/tarnbloom" info --json "$sample" >"$tmp/info.json" 2>&1 || { cat "$tmp/info.json" >&2; fail "installed tarnbloom info failed"; }
grep -q '"readable": *true' "$tmp/info.json" || { cat "$tmp/info.json" >&2; fail "the installed tool could not read $sample"; }
grep -q '"hasAlpha": *null' "$tmp/info.json" && { cat "$tmp/info.json" >&2; fail "the installed tool did not decode $sample"; }
# The same run with the installed helper broken must fail to decode: the tool
# uses the installed helper, not the one in the build tree.
cp "$p/lib/tarnbloom/tarnbloom-decode" "$tmp/helper"
printf '#!/bin/sh\nexit 1\n' >"$p/lib/tarnbloom/tarnbloom-decode"
"$p/bin/tarnbloom" info --json "$sample" >"$tmp/broken.json" 2>&1 || true
grep -q '"hasAlpha": *null' "$tmp/broken.json" ||
  { cat "$tmp/broken.json" >&2; fail "the installed tool did not use the installed helper"; }
cp "$tmp/helper" "$p/lib/tarnbloom/tarnbloom-decode"
QT_QPA_PLATFORM=offscreen "$p/bin/tarnbloom-app" --version | grep -q "$version" || fail "installed tarnbloom-app --version"

# --- The model -------------------------------------------------------------
if [ $model = yes ]; then
  "$src/scripts/fetch-model" --check "$p/share/tarnbloom/models" || fail "the installed model is not intact"
  # A damaged copy already in place looks up to date to the installer; the
  # digest check must still refuse it, loudly, and leave nothing behind.
  bad=$tmp/bad$prefix/share/tarnbloom/models
  mkdir -p "$bad"
  cp "$src/models/realesr-general-x4v3.param" "$bad/"
  printf 'X' | dd of="$bad/realesr-general-x4v3.param" bs=1 seek=0 conv=notrunc status=none
  touch -r "$src/models/realesr-general-x4v3.param" "$bad/realesr-general-x4v3.param"
  if DESTDIR=$tmp/bad cmake --install "$build" --component model >"$tmp/bad.log" 2>&1; then
    fail "a damaged model was installed"
  fi
  # CMake wraps its messages.
  tr -s ' \n' ' ' <"$tmp/bad.log" | grep -q "does not have the published SHA-256" || { cat "$tmp/bad.log" >&2; fail "the refusal does not say why"; }
  [ ! -e "$bad/realesr-general-x4v3.param" ] || fail "the damaged model was left in place"
fi
echo "package layout: ok"
