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
# What any desktop has: the launcher database tools and the session bus.
in_root sh -c 'DEBIAN_FRONTEND=noninteractive apt-get install -y -qq desktop-file-utils shared-mime-info dbus' >&2
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
# Open With and the tarnbloom:// scheme, as the desktop database now lists them.
cache=$root/usr/share/applications/mimeinfo.cache
grep -q '^image/jpeg=.*com\.tarnbloom\.app\.desktop' "$cache" || fail "not offered in Open With for JPEG"
grep -q '^x-scheme-handler/tarnbloom=com\.tarnbloom\.app\.desktop' "$cache" || fail "tarnbloom:// has no handler"

# The file manager's menu with the user's recipe, drawn by the Nautilus
# extension under the real Nautilus bindings, chosen, and announced at the
# end through the session bus; python3-dbus runs the stand-in
# notification server.
in_root dpkg -s python3-nautilus >/dev/null 2>&1 || fail "apt did not install python3-nautilus"
in_root sh -c 'DEBIAN_FRONTEND=noninteractive apt-get install -y -qq python3-dbus' >&2
cp "$here/tests/package/notification_server.py" "$root/tmp/"
cat >"$root/tmp/nautilus_menu.py" <<'PY'
import json, os, runpy, sys
import gi
gi.require_version("Nautilus", "4.0")
from gi.repository import Gio
# Nautilus loads an extension as a module of its file name, which names
# its GObject types.
menu = runpy.run_path("/usr/share/nautilus-python/extensions/tarnbloom_menu.py", run_name="tarnbloom_menu")
class Selected:
    def __init__(self, path): self.path = path
    def get_location(self): return Gio.File.new_for_path(self.path)
    def is_directory(self): return os.path.isdir(self.path)
    def get_mime_type(self): return "image/png"
items = menu["TarnbloomMenuProvider"]().get_file_items([Selected(sys.argv[1])])
entries = items[0].get_property("menu").get_items()
print(json.dumps([e.get_property("label") for e in entries], ensure_ascii=False))
next(e for e in entries if e.get_property("label") == sys.argv[2]).activate()
PY
in_root tarnbloom recipe save "Web Print" --size x2 --format jpeg --method exact >&2
in_root tarnbloom menu add "Web Print" >&2
# The first use of an entry is agreed in the window; agreed here as the
# window would record it.
in_root /usr/bin/python3 -c '
import json, subprocess
ids = json.loads(subprocess.run(["tarnbloom", "recipe", "list", "--json"], capture_output=True, text=True).stdout.splitlines()[0])
path = "/home/ann/.config/tarnbloom/settings.json"
settings = json.load(open(path))
settings["FinderMenuStore.acknowledgedIdentities"] = [json.dumps({"recipe": {"id": ids["id"]}}, separators=(",", ":"))]
json.dump(settings, open(path, "w"))' || fail "could not find the settings file"
in_root dbus-run-session -- sh -c '
  /usr/bin/python3 /tmp/notification_server.py /tmp/notified &
  sleep 2
  /usr/bin/python3 /tmp/nautilus_menu.py /home/ann/Pictures/chelsea.png "Web Print" > /tmp/labels
  for i in $(seq 120); do [ -s /tmp/notified ] && break; sleep 0.5; done
  kill %1' >&2 || true
cat "$root/tmp/labels"
grep -q '"Enlarge 2×", "Enlarge 4×", "Enlarge 8×", "Web Print"' "$root/tmp/labels" || fail "the Nautilus menu lacks its entries"
grep -q '"body": "1 enlarged", "actions": \["show", "Show in Folder"\]' "$root/tmp/notified" ||
  fail "no notification after the right-click export"
cat "$root/tmp/notified"
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
