#!/bin/sh
# Fails when the program imports any DLL that is not part of Windows itself.
exe="$1"
allowed='^(kernel32|advapi32|msvcrt|shlwapi|shell32|user32|ole32|oleaut32|setupapi|newdev|winspool\.drv|ws2_32|iphlpapi|ntdll|psapi|crypt32|rpcrt4|winmm|secur32|version|userenv|netapi32|wtsapi32)\.dll$'
dlls=$(x86_64-w64-mingw32-objdump -p "$exe" | sed -n 's/^[[:space:]]*DLL Name: //p' | tr 'A-Z' 'a-z')
[ -n "$dlls" ] || { echo "no import table read from $exe"; exit 1; }
bad=0
for dll in $dlls; do
  if echo "$dll" | grep -Eq "$allowed"; then echo "ok      $dll"; else echo "FOREIGN $dll"; bad=1; fi
done
exit $bad
