#!/usr/bin/env bash
# Checks XPON-BOARD-MIB with smilint (package smitools).
#
# Debian's main archive ships none of the IETF modules the MIB imports (SNMPv2-SMI, SNMPv2-CONF,
# ENTITY-MIB; snmp-mibs-downloader in non-free fetches them), so smilint cannot resolve the
# imports there. Without them the check keeps every complaint except those that follow from the
# missing modules: the unresolved imports themselves, the SMIv1 rules smilint then applies, and
# the imported entPhysicalIndex. Syntax errors, misplaced or doubly registered nodes and broken
# SEQUENCEs still fail it. Where the IETF modules are installed, every complaint fails it.
# Usage: check_mib.sh MIB-FILE
set -euo pipefail

mib="$1"
if ! command -v smilint >/dev/null; then
  echo "smilint is not installed (package smitools)"
  if [ "${CI:-}" = true ]; then
    exit 1
  fi
  exit 77
fi

paths=(/usr/share/snmp/mibs /usr/share/snmp/mibs/ietf /usr/share/snmp/mibs/iana /var/lib/snmp/mibs/ietf /var/lib/mibs/ietf)
found=""
for dir in "${paths[@]}"; do
  if [ -e "$dir/SNMPv2-SMI" ] || [ -e "$dir/SNMPv2-SMI.txt" ]; then
    found="$dir"
  fi
done
search="$(IFS=:; echo "${paths[*]}")"

output="$(SMIPATH="$search" smilint -l 6 -p /usr/share/snmp/mibs/NET-SNMP-MIB.txt "$mib" 2>&1 || true)"
if [ -n "$found" ]; then
  echo "IETF modules found in $found: full check"
  complaints="$output"
else
  echo "no IETF modules installed: the imports stay unresolved"
  complaints="$(grep -v -e "failed to locate MIB module" -e "SMIv1" -e "SMIv2 style" \
    -e "unknown object identifier label \`entPhysicalIndex'" -e "unknown object identifier label \`enterprises'" \
    <<<"$output" || true)"
fi
if [ -n "$complaints" ]; then
  echo "smilint complains about $mib:"
  echo "$complaints"
  exit 1
fi
echo "smilint: $mib is clean"
