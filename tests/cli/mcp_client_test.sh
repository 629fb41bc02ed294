#!/usr/bin/env bash
# Drives `tarnbloom mcp` with the protocol's reference TypeScript client, as
# an agent's host would: list the tools, ask the instance, enlarge a photo.
#
#   tests/cli/mcp_client_test.sh PATH-TO-TARNBLOOM CLIENT-FOLDER
#
# The client is installed with npm into CLIENT-FOLDER once and reused. Exits
# 77 (skipped) when node or npm is missing or the registry cannot be reached.
set -euo pipefail
tool=$(realpath "${1:?usage: mcp_client_test.sh PATH-TO-TARNBLOOM CLIENT-FOLDER}")
client=${2:?usage: mcp_client_test.sh PATH-TO-TARNBLOOM CLIENT-FOLDER}
here=$(cd "$(dirname "$0")" && pwd)
sdk_version=1.32.2

if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
  echo "node or npm is missing; skipped"
  exit 77
fi
mkdir -p "$client"
client=$(realpath "$client")
if [[ ! -f $client/node_modules/@modelcontextprotocol/sdk/package.json ]] ||
  ! grep -q "\"version\": \"$sdk_version\"" "$client/node_modules/@modelcontextprotocol/sdk/package.json"; then
  if ! (cd "$client" && timeout 300 npm install --no-audit --no-fund --no-save --loglevel=error \
    "@modelcontextprotocol/sdk@$sdk_version" >npm.log 2>&1); then
    echo "the npm registry could not be reached; skipped"
    tail -5 "$client/npm.log" || true
    exit 77
  fi
fi
# ES modules resolve packages beside the script, so the script goes there.
cp "$here/mcp_client_test.mjs" "$client/"

scratch=$(mktemp -d)
home=$scratch/home
cleanup() {
  # The instance the server started lives on until it is idle; let it go
  # before its state folder does.
  for _ in $(seq 1 120); do
    [[ -e $home/export-queue.lock ]] || break
    flock -n "$home/export-queue.lock" true 2>/dev/null && break
    sleep 0.5
  done
  rm -rf "$scratch"
}
trap cleanup EXIT
mkdir -p "$home" "$scratch/photos" "$scratch/out"
cp "$here/../../samples/rocket.jpg" "$scratch/photos/"

TARNBLOOM_HOME=$home node "$client/mcp_client_test.mjs" "$tool" "$scratch/photos/rocket.jpg" "$scratch/out"
