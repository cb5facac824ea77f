# usage: agent_build_test.sh ROOT CMAKE CC
# What an agent's own build refuses: wrong paths when it is configured, and a module that
# could not be loaded when it is linked.
set -uo pipefail
root=$1 cmake=$2 cc=$3
scratch=$(mktemp -d) && trap 'rm -rf "$scratch"' EXIT

options=(FC_{IMPORTS,SLB3}_INCLUDE_DIR FC_{VXI,VXA_CORE,SLB3}_LIBRARY)
given=("${options[@]/#/-D}")
message=$("$cmake" -G Ninja -S "$root" -B "$scratch/build" "${given[@]/%/=/nonexistent}" 2>&1) &&
    { echo "configured with wrong paths"; exit 1; }
for option in "${options[@]}"; do
    grep -q "$option: /nonexistent" <<<"$message" || { echo "$option: $message"; exit 1; }
done

for code in 'int lua_gettop(void*); int f(void* L) { return lua_gettop(L); }' \
    'int missing(void); int f(void) { return missing(); }'; do
    "$cc" -x c -shared -fPIC -o "$scratch/module.so" - <<<"$code" || exit 1
    message=$("$root/cmake/check-imports" "$scratch/module.so" 2>&1)
    echo "$? ${message//$'\n'/ }"
done | diff - <(printf '0 \n1 %s\n' "$scratch/module.so cannot be loaded. No library that it is \
linked with defines:     missing")
