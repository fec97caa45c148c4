#!/usr/bin/env bash
# The DLL exports exactly these names at these ordinals (index in the address table + the base, 1),
# and imports exactly these known DLLs (the C++ runtime is linked in; version, wininet and bcrypt
# come through the platform table from the system folder): a new import fails the check.
set -euo pipefail
table=$("$1" -p "$2")
exports=$(sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/s/^\s*\[\s*\([0-9]*\)\] \(.*\)$/\1 \2/p' \
    <<<"$table" | awk '{print $1 + 1, $2}' | sort -n | xargs)
imports=$(sed -n 's/^\s*DLL Name: \(.*\)$/\1/p' <<<"$table" | sort -f | xargs)
[ "$exports" = "1 GetCountOfTwInstances 2 GetTwSlipstream 3 GetTwSlipstream2 4 InstallKite 5 IsKITEApplicable 6 IsKITEToBeForceApplied 7 RecoverKite" ] &&
    [ "$imports" = "ADVAPI32.dll KERNEL32.dll msvcrt.dll ole32.dll SHELL32.dll SHLWAPI.dll" ] ||
    { echo "exports: $exports; imports: $imports"; exit 1; }
