#!/usr/bin/env bash
# A file manager run announces itself once, with "Show in Folder" that opens
# the export's folder, and a job that did not ask stays quiet: the real tool
# and instance on a private session bus, with a stand-in notification server
# that clicks the action, and xdg-open recorded instead of opening a window.
#
#   notification_test.sh BUILD-DIR
set -euo pipefail
build=$1
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
for tool in dbus-run-session notify-send; do
  command -v $tool >/dev/null || { echo "skipped: $tool is not installed"; exit 77; }
done
/usr/bin/python3 -c 'import dbus, gi' 2>/dev/null || { echo "skipped: python3-dbus is not installed"; exit 77; }

tmp=$(mktemp -d)
cleanup() {
  # The instance this test started, found by its own state folder.
  for pid in $(pgrep -f "tarnbloom service" || true); do
    tr '\0' '\n' <"/proc/$pid/environ" 2>/dev/null | grep -qx "TARNBLOOM_HOME=$tmp/home" && kill "$pid" || true
  done
  rm -rf "$tmp"
}
trap cleanup EXIT
fail() { echo "notification: $*" >&2; exit 1; }
mkdir -p "$tmp/home" "$tmp/bin" "$tmp/photos"
cp "$here/../../samples/chelsea.png" "$tmp/photos/"
printf '#!/bin/sh\necho "$@" >> "%s/opened"\n' "$tmp" >"$tmp/bin/xdg-open"
chmod +x "$tmp/bin/xdg-open"
# Enlarge 2x confirmed once already, with Exact so the run is quick.
cat >"$tmp/home/settings.json" <<JSON
{"FinderMenuStore.acknowledgedIdentities": ["{\"enlarge\":2}"],
 "FinderMenuStore.enlargeOptions.2": null, "method": "exact", "onboarding.completed": true}
JSON

export TMP_DIR=$tmp BUILD=$build SERVER=$here/notification_server.py
timeout 240 dbus-run-session -- bash -c '
  set -e
  "$SERVER" "$TMP_DIR/notified" --choose show &
  for i in $(seq 50); do [ -n "$(dbus-send --session --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.NameHasOwner string:org.freedesktop.Notifications 2>/dev/null | grep true)" ] && break; sleep 0.1; done
  export PATH=$TMP_DIR/bin:$PATH TARNBLOOM_HOME=$TMP_DIR/home
  "$BUILD/cli/tarnbloom" enlarge --size x2 --method exact --out "$TMP_DIR/quiet" "$TMP_DIR/photos/chelsea.png" >/dev/null
  "$BUILD/cli/tarnbloom" menu-run --entry enlarge-2 -- "$TMP_DIR/photos/chelsea.png" >/dev/null
  for i in $(seq 120); do [ -f "$TMP_DIR/opened" ] && break; sleep 0.5; done
  sleep 1
  kill %1' 2>"$tmp/bus.log" || { cat "$tmp/bus.log" >&2; fail "the session did not finish"; }

[ -f "$tmp/notified" ] || fail "nothing was announced"
[ "$(wc -l <"$tmp/notified")" = 1 ] || { cat "$tmp/notified" >&2; fail "announced other than once"; }
grep -q '"body": "1 enlarged", "actions": \["show", "Show in Folder"\]' "$tmp/notified" ||
  { cat "$tmp/notified" >&2; fail "the announcement is not the run's summary with Show in Folder"; }
[ "$(cat "$tmp/opened" 2>/dev/null)" = "$tmp/photos" ] || fail "Show in Folder did not open the export's folder"
echo "notification: one announcement, Show in Folder opened $tmp/photos"
