#!/usr/bin/env bash
# Installs the package on a Debian 12 system nothing else has prepared: a
# minimal bookworm root made with debootstrap, where only dpkg and apt put
# anything. Then it uses what was installed as a person would (the tool, the
# window on the offscreen platform, the launcher entry, the manual) and
# removes the package again, checking that the user's files stay.
#
#   tests/package/fresh_machine_check.sh DEB [ROOT]
#
# Needs root and Debian's mirror; ROOT (default /var/tmp/fresh-debian) is
# made once and reused read-only as a template. Not part of the test suite:
# it downloads a few hundred megabytes.
set -euo pipefail
deb=$(realpath "$1")
template=${2:-/var/tmp/fresh-debian}
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
fail() { echo "fresh machine: $*" >&2; exit 1; }
[ "$(id -u)" = 0 ] || fail "run as root (chroot, mounts)."

if [ ! -x "$template/usr/bin/apt-get" ]; then
  debootstrap --variant=minbase bookworm "$template" http://deb.debian.org/debian >&2
fi
root=$(mktemp -d /var/tmp/fresh-install.XXXXXX)
cleanup() {
  for m in proc dev/pts dev; do umount -l "$root/$m" 2>/dev/null || true; done
  rm -rf "$root"
}
trap cleanup EXIT
cp -a "$template/." "$root/"
mount -t proc proc "$root/proc"
mount --bind /dev "$root/dev"
mount --bind /dev/pts "$root/dev/pts"
cp /etc/resolv.conf "$root/etc/resolv.conf"
cp "$deb" "$root/tmp/"
cp "$here/samples/chelsea.png" "$root/tmp/"
in_root() { chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/home/ann LANG=C.UTF-8 "$@"; }

in_root mkdir -p /home/ann/Pictures
in_root cp /tmp/chelsea.png /home/ann/Pictures/
before=$(in_root sh -c 'cd / && find home -type f | sort | xargs sha256sum')

in_root apt-get update -qq >&2
# dpkg alone stops at the missing libraries; apt then brings them in.
in_root dpkg -i "/tmp/$(basename "$deb")" >&2 || true
in_root sh -c 'DEBIAN_FRONTEND=noninteractive apt-get -f install -y -qq' >&2
in_root dpkg -s tarnbloom | grep -q '^Status: install ok installed' || fail "the package did not install"

in_root tarnbloom --version
in_root tarnbloom-app --version
in_root sh -c 'cd /home/ann/Pictures && tarnbloom enlarge chelsea.png --size x2 --method enhance --format jpeg' >&2 ||
  fail "the installed tool did not export with Enhance"
ls "$root/home/ann/Pictures/" | grep -q 'chelsea_.*\.jpg' || fail "no export beside the photo"
in_root sh -c 'QT_QPA_PLATFORM=offscreen timeout 5 tarnbloom-app /home/ann/Pictures/chelsea.png; test $? = 124' ||
  fail "the window did not start on the offscreen platform"
grep -q '^Exec=tarnbloom-app %U' "$root/usr/share/applications/com.tarnbloom.app.desktop" || fail "no launcher entry"
[ -s "$root/usr/share/man/man1/tarnbloom.1.gz" ] || fail "no manual page"
[ -s "$root/usr/share/doc/tarnbloom/copyright" ] || fail "no copyright file"

installed=$(in_root dpkg -L tarnbloom | sed 1d)
in_root dpkg -r tarnbloom >&2
for path in $installed; do
  [ -d "$root$path" ] && continue  # shared folders such as /usr/share/man stay
  [ ! -e "$root$path" ] || fail "dpkg -r left $path"
done
after=$(in_root sh -c 'cd / && find home -type f -name chelsea.png | sort | xargs sha256sum')
[ "$(grep chelsea.png <<<"$before")" = "$after" ] || fail "removing the package changed the user's photo"
ls "$root/home/ann/Pictures/" | grep -q 'chelsea_.*\.jpg' || fail "removing the package took the user's export"
echo "fresh machine: installed, used and removed $(basename "$deb") cleanly"
