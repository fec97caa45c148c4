#!/usr/bin/env bash
# The DLL exports exactly these names at these ordinals (index in the address table + the base, 1),
# and imports system DLLs only: the C++ runtime is linked in.
set -euo pipefail
table=$("$1" -p "$2")
exports=$(sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/s/^\s*\[\s*\([0-9]*\)\] \(.*\)$/\1 \2/p' \
    <<<"$table" | awk '{print $1 + 1, $2}' | sort -n | xargs)
system='ADVAPI32|bcrypt|KERNEL32|msvcrt|ole32|OLEAUT32|SHELL32|USER32|VERSION|WININET|urlmon|SHLWAPI'
imports=$(sed -n 's/^\s*DLL Name: \(.*\)\.dll$/\1/ip' <<<"$table" | grep -vixE "$system" | xargs) || true
[ "$exports" = "1 GetCountOfTwInstances 2 GetTwSlipstream 3 GetTwSlipstream2 4 InstallKite 5 IsKITEApplicable 6 IsKITEToBeForceApplied 7 RecoverKite" ] &&
    [ -z "$imports" ] || { echo "exports: $exports; imports a non-system DLL: $imports"; exit 1; }
