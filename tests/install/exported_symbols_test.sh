#!/usr/bin/env bash
# Every dynamic symbol libnetloop defines belongs to one of its four interfaces.
set -euo pipefail
lib=$1
symbols=$(nm -DC --defined-only "$lib" | awk '$2 != "A"' | sed -E 's/^[0-9a-f]+ [A-Za-z] //; s/@@.*$//')
bad=$(grep -vE '^(netloop::(IHttpInterface|IHttpHandleInterface|ITimerHandleInterface|IUdpHandleInterface)::|(vtable|typeinfo|typeinfo name) for netloop::(IHttpInterface|IHttpHandleInterface|ITimerHandleInterface|IUdpHandleInterface)$)' <<<"$symbols" || true)
if [ -n "$bad" ]; then
  echo "unexpected exports:"; echo "$bad"; exit 1
fi
for iface in IHttpInterface IHttpHandleInterface ITimerHandleInterface IUdpHandleInterface; do
  for kind in "vtable for" "typeinfo for"; do
    grep -qx "$kind netloop::$iface" <<<"$symbols" || { echo "missing: $kind netloop::$iface"; exit 1; }
  done
done
echo "exports ok: $(wc -l <<<"$symbols") symbols"
