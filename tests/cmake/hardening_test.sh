# usage: hardening_test.sh FORTIFIED MODULE...
# The modules are hardened as Debian's packages are. The instructions looked for are x86's.
set -uo pipefail
fortified=$1 status=0
shift

# has WHAT PATTERN TEXT
has() { grep -qE "$2" <<<"$3" || { echo "$module: no $1"; status=1; }; }

for module in "$@"; do
    symbols=$(nm -D --undefined-only "$module") headers=$(readelf -dlW "$module")
    has "stack protector" ' __stack_chk_fail' "$symbols"
    [ "$fortified" = 0 ] || has "fortified function" ' __v?snprintf_chk' "$symbols"
    has "immediate binding" 'Flags:.* NOW' "$headers"
    has "read-only relocations" ' GNU_RELRO ' "$headers"
    ! grep -E 'RUNPATH.*(\[:|::|:\])' <<<"$headers" || status=1  # the loader would search "."
    has "stack without execution" ' GNU_STACK .* RW ' "$headers"
    [ "$(uname -m)" = x86_64 ] || continue
    code=$(objdump -d --no-show-raw-insn "$module")
    has "stack probe" '\bor[lq]? +\$0x0,.*\(%rsp\)' "$code"
    # One is in the compiler's own start-up code.
    [ "$(grep -c endbr64 <<<"$code")" -gt 20 ] || { echo "$module: no landing pads"; status=1; }
done
exit $status
