# usage: exports_test.sh NM LIBRARY HEADER...
# The library exports exactly what its headers declare with VXI_API, and has its soname.
set -euo pipefail
nm=$1 library=$2
shift 2

declared=$(cat "$@" | tr '\n' ' ' | grep -oE 'VXI_API [^;]*;' |
    grep -vE '^VXI_API __attribute__' | grep -oE '(vxi_|tb_dump_|profiler_|vsnprintf_)[a-z0-9_]+\(' |
    grep -vE '_s\($' | tr -d '(' | sort)
exported=$("$nm" -D --defined-only "$library" | awk '{ print $3 }' | sort)

[ "$(wc -w <<<"$declared")" -ge 20 ] || { echo "headers not understood: $declared"; exit 1; }
diff <(echo "$declared") <(echo "$exported") || { echo "< declared, > exported"; exit 1; }
readelf -d "$library" | grep -q 'soname: \[libvxi.so.1\]' || { echo "wrong soname"; exit 1; }
