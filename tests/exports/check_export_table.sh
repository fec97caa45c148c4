#!/usr/bin/env bash
# The DLL's export table holds exactly the expected names at their fixed ordinals, and it imports
# system DLLs only (the C++ runtime is linked in).
set -euo pipefail
objdump=$1
dll=$2
expected_exports="1 GetCountOfTwInstances
2 GetTwSlipstream
3 GetTwSlipstream2
4 InstallKite
5 IsKITEApplicable
6 IsKITEToBeForceApplied
7 RecoverKite"
system_dlls="ADVAPI32.dll KERNEL32.dll msvcrt.dll ole32.dll OLEAUT32.dll SHELL32.dll USER32.dll
VERSION.dll WININET.dll urlmon.dll SHLWAPI.dll"

table=$("$objdump" -p "$dll")
exports=$(echo "$table" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' |
    sed -n 's/^\s*\[\s*[0-9]*\] \(.*\)$/\1/p')
ordinals=$(echo "$table" | sed -n 's/^\s*\[\s*[0-9]*\] +base\[\s*\([0-9]*\)\].*/\1/p')
actual=$(paste -d' ' <(echo "$ordinals") <(echo "$exports"))
if [ "$actual" != "$expected_exports" ]; then
    printf 'export table differs:\n%s\nexpected:\n%s\n' "$actual" "$expected_exports"
    exit 1
fi
status=0
for imported in $(echo "$table" | sed -n 's/^\s*DLL Name: //p'); do
    if ! grep -qiw -- "$imported" <<<"$system_dlls"; then
        echo "imports a non-system DLL: $imported"
        status=1
    fi
done
[ $status -eq 0 ] && echo "exports and imports as expected"
exit $status
