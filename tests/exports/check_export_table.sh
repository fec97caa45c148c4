#!/usr/bin/env bash
# The DLL exports exactly these names at these ordinals (index in the address table + the base, 1),
# and imports system DLLs only: the C++ runtime is linked in.
set -euo pipefail
table=$("$1" -p "$2")
expected="1 GetCountOfTwInstances 2 GetTwSlipstream 3 GetTwSlipstream2 4 InstallKite 5 IsKITEApplicable 6 IsKITEToBeForceApplied 7 RecoverKite"
actual=$(sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/s/^\s*\[\s*\([0-9]*\)\] \(.*\)$/\1 \2/p' \
    <<<"$table" | awk '{print $1 + 1, $2}' | sort -n | xargs)
[ "$actual" = "$expected" ] || { printf 'export table: %s\nexpected:     %s\n' "$actual" "$expected"; exit 1; }
for dll in $(sed -n 's/^\s*DLL Name: \(.*\)\.dll$/\1/ip' <<<"$table"); do
    grep -qiw -- "$dll" <<<"ADVAPI32 bcrypt KERNEL32 msvcrt ole32 OLEAUT32 SHELL32 USER32 VERSION WININET urlmon SHLWAPI" ||
        { echo "imports a non-system DLL: $dll.dll"; exit 1; }
done
