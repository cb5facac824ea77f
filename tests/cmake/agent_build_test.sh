# usage: agent_build_test.sh ROOT CMAKE CC VXI_LIBRARY
# What an agent's own build refuses: wrong paths when it is configured, and a module that
# could not be loaded when it is linked.
set -uo pipefail
root=$1 cmake=$2 cc=$3 vxi=$4
scratch=$(mktemp -d) && trap 'rm -rf "$scratch"' EXIT

compile() { "$cc" -x c -fPIC "${@:2}" -o "$scratch/$1" - || exit 1; }

# ---- paths --------------------------------------------------------------------------------

mkdir "$scratch/folder" "$scratch/half" && : >"$scratch/empty"
compile object -c <<<'int f;'
compile program -pie <<<'int main(void) { return 0; }'
compile other.so -shared <<<'int vxi_open;'
head -c 4096 "$vxi" >"$scratch/half.so"
{ head -c 18 "$vxi" && printf '\267' && tail -c +20 "$vxi"; } >"$scratch/aarch64.so"
cp -r "$root"/imports/{vxi,VxaCore} "$scratch/half" && rm "$scratch/half/vxi/records.h"

# refuse {OPTION VALUE MESSAGE}...: configures with the values, and expects the messages.
refuse() {
    local options=() expected=() message line
    while [ $# -gt 0 ]; do
        options+=("-D$1=$2")
        [ -z "$3" ] || expected+=("$1: $3")
        shift 3
    done
    message=$("$cmake" -G Ninja -S "$root" -B "$scratch/build" "${options[@]}" 2>&1) &&
        { echo "configured with ${options[*]}"; exit 1; }
    for line in "${expected[@]}"; do
        grep -qF "$line" <<<"$message" || { echo "not refused: $line: $message"; exit 1; }
    done
}
nothing=$scratch/nothing
refuse FC_IMPORTS_INCLUDE_DIR "$nothing" "$nothing has no vxi/vxi.h" \
    FC_SLB3_INCLUDE_DIR "$nothing" "$nothing has no SLB3/slb.h" \
    FC_VXI_LIBRARY "$nothing" "$nothing is not a file" \
    FC_VXA_CORE_LIBRARY "$scratch/folder" "$scratch/folder is not a file" \
    FC_SLB3_LIBRARY "$scratch/empty" "$scratch/empty is not a library"
refuse FC_IMPORTS_INCLUDE_DIR "$scratch/half" "the headers cannot be compiled: $scratch/half/vxi/" \
    FC_SLB3_INCLUDE_DIR "" "" \
    FC_VXI_LIBRARY "$scratch/object" "$scratch/object is not a shared library" \
    FC_VXA_CORE_LIBRARY "$scratch/program" "$scratch/program cannot be linked: " \
    FC_SLB3_LIBRARY "$vxi" "$vxi does not define"
refuse FC_IMPORTS_INCLUDE_DIR "" " has no vxi/vxi.h" \
    FC_SLB3_INCLUDE_DIR "$root/imports/slb3" "needs FC_SLB3_LIBRARY" \
    FC_VXI_LIBRARY "$scratch/aarch64.so" "$scratch/aarch64.so cannot be linked: " \
    FC_VXA_CORE_LIBRARY "$vxi" "$vxi does not define" FC_SLB3_LIBRARY "" ""
refuse FC_VXI_LIBRARY "$scratch/other.so" "$scratch/other.so does not define" \
    FC_VXA_CORE_LIBRARY "$scratch/half.so" "$scratch/half.so cannot be linked: "

# ---- imports ------------------------------------------------------------------------------

for code in 'int lua_gettop(void*); int f(void* L) { return lua_gettop(L); }' \
    'int missing(void); int f(void) { return missing(); }'; do
    compile module.so -shared <<<"$code"
    message=$("$root/cmake/check-imports" "$scratch/module.so" 2>&1)
    echo "$? ${message//$'\n'/ }"
done | diff - <(printf '0 \n1 %s\n' "$scratch/module.so cannot be loaded. No library that it is \
linked with defines:     missing")
