#!/usr/bin/env bash
# The recorder resolves the plug-in by two undecorated names; everything else it may see is the
# command table, the analyser and MD5. Anything of the object's or the host's internals that
# leaks into the dynamic symbol table is a fault: it can clash with the host's own symbols.
set -euo pipefail
lib=$1
shift
nm_tool=${NM:-nm}
table=$("$nm_tool" -D --defined-only "$lib")
syms=$(awk '{print $3}' <<<"$table")
fail=0
for name in PeripheralCreate PeripheralRelease "$@"; do
    if ! grep -qx "$name" <<<"$syms"; then
        echo "missing undecorated export: $name"
        fail=1
    fi
done
# The command table is data under its plain name (a function or a decorated name would not do).
if ! grep -qE '^[0-9a-f]+ [DR] ObdCmdArray$' <<<"$table"; then
    echo "missing undecorated data export: ObdCmdArray"
    fail=1
fi
demangled=$(c++filt <<<"$syms")
leaks=$(grep -E 'CSerialDevOBD|COBDParser|CSerialBase|CPeripheralBase|CThread|CMsgClientManage|CPeripheralManage|hostsim|fakehost|TaskSend|InsertSendTask|^std::|ObdCycleTimersReset' <<<"$demangled" || true)
if [[ -n $leaks ]]; then
    echo "internal symbols exported:"
    echo "$leaks"
    fail=1
fi
for prefix in kestrel_MD5Init Gds_IF_InitLogicAnalyser; do
    if ! grep -q "$prefix" <<<"$demangled"; then
        echo "missing export: $prefix"
        fail=1
    fi
done
[[ $fail == 0 ]] && echo "exports OK: $(wc -l <<<"$syms") dynamic symbols"
exit $fail
