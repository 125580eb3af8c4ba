#!/usr/bin/env bash
# Installs everything netloop needs to build, test and benchmark on Debian 12.
# Idempotent: a second run finds everything in place and returns quickly.
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then exec sudo -E "$0" "$@"; fi
  echo "setup.sh: must run as root" >&2
  exit 1
fi

export DEBIAN_FRONTEND=noninteractive

# libcurl with WebSocket support comes from bookworm-backports. The source reuses
# the URIs and keyring of the machine's own bookworm source, so no mirror is named here.
backports_present() {
  grep -rqsE '(^|[[:space:]])bookworm-backports([[:space:]]|$)' /etc/apt/sources.list /etc/apt/sources.list.d/ 2>/dev/null
}

add_backports() {
  local src uris signed
  for src in /etc/apt/sources.list.d/*.sources; do
    [ -f "$src" ] || continue
    # First stanza whose Suites line names plain "bookworm".
    uris=$(awk 'BEGIN{RS="";FS="\n"} /Suites:[^\n]*[[:space:]]bookworm([[:space:]]|$|\n)/ {
             for (i=1;i<=NF;i++) if ($i ~ /^URIs:/) { sub(/^URIs:[[:space:]]*/, "", $i); print $i; exit } }' "$src")
    signed=$(awk 'BEGIN{RS="";FS="\n"} /Suites:[^\n]*[[:space:]]bookworm([[:space:]]|$|\n)/ {
             for (i=1;i<=NF;i++) if ($i ~ /^Signed-By:/) { sub(/^Signed-By:[[:space:]]*/, "", $i); print $i; exit } }' "$src")
    [ -n "$uris" ] && break
  done
  if [ -z "${uris:-}" ] && [ -f /etc/apt/sources.list ]; then
    uris=$(awk '$1=="deb" && $3=="bookworm" {print $2; exit}' /etc/apt/sources.list)
  fi
  if [ -z "${uris:-}" ]; then
    echo "setup.sh: no Debian bookworm source found under /etc/apt" >&2
    exit 1
  fi
  {
    echo "Types: deb"
    echo "URIs: $uris"
    echo "Suites: bookworm-backports"
    echo "Components: main"
    [ -n "${signed:-}" ] && echo "Signed-By: $signed"
  } > /etc/apt/sources.list.d/bookworm-backports.sources
  echo "setup.sh: added bookworm-backports ($uris)"
}

curl_has_ws() {
  local protocols
  protocols=$(curl-config --protocols 2>/dev/null) || return 1
  grep -qx 'WS' <<<"$protocols"
}

pkgs=(libuv1-dev libboost-dev libssl-dev googletest libgtest-dev libbenchmark-dev
      nginx-light wrk openssl pkg-config cmake ninja-build g++ make valgrind clang libclang-rt-14-dev
      python3 python3-websockets socat gnuplot-nox)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

updated=0
if ! curl_has_ws; then
  backports_present || add_backports
  apt-get update -qq
  updated=1
  apt-get install -y -qq -t bookworm-backports libcurl4-openssl-dev curl
fi
if [ ${#missing[@]} -gt 0 ]; then
  [ $updated -eq 1 ] || apt-get update -qq
  apt-get install -y -qq "${missing[@]}"
fi

if ! curl_has_ws; then
  echo "setup.sh: libcurl still lacks WebSocket support after install" >&2
  exit 1
fi
echo "setup.sh: ready (libcurl $(curl-config --version | cut -d' ' -f2), ws enabled)"
