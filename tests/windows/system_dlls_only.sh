#!/usr/bin/env bash
# A program for a bare Windows imports nothing but the system's own libraries: no compiler
# runtime, no threads library, and the vendor's library only at run time. CRYPT32 holds
# the store of trusted roots that secured network ports read; Secur32 the sign-on of Windows that
# the database client offers.
# Usage: system_dlls_only.sh OBJDUMP PROGRAM.exe
set -euo pipefail
objdump=$1 program=$2
system='^(KERNEL32|USER32|GDI32|ADVAPI32|SHELL32|OLE32|OLEAUT32|COMDLG32|WINMM|WS2_32|msvcrt|IMM32|UxTheme|dwmapi|DWrite|d3d9|d3d11|dxgi|SHCORE|SHLWAPI|CRYPT32|Secur32|bcrypt|USERENV|VERSION|NETAPI32|WTSAPI32|AUTHZ|api-ms-win-core-[a-z0-9-]+)\.dll$'
imports=$("$objdump" -p "$program" | sed -n 's/^\tDLL Name: //p')
foreign=$(grep -viE "$system" <<<"$imports" || true)
if [[ -n $foreign ]]; then
  echo "$program needs libraries a bare Windows lacks: $foreign" >&2
  exit 1
fi
echo "$program imports: $(tr '\n' ' ' <<<"$imports")"
