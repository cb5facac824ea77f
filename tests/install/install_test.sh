# usage: install_test.sh ROOT BUILD CMAKE LUA
# An installation works where it is moved, for programs too, and is removed completely.
set -uo pipefail
root=$1 build=$2 cmake=$3 lua=$4
scratch=$(mktemp -d) && trap 'rm -rf "$scratch"' EXIT
chmod 755 "$scratch"
cd / || exit 1

# expect NAME PATTERN COMMAND...: the command succeeds, and its output matches.
expect() {
    local output
    output=$("${@:3}" 2>&1) && grep -qE -e "$2" <<<"$output" && return
    printf '%s: expected %s, not:\n%s\n' "$1" "$2" "$output"
    exit 1
}

first="$scratch/a %S folder/fc" prefix="$scratch/moved here/fc"
umask 077
export DESTDIR=$scratch/stage
"$cmake" --install "$build" --prefix "$first" --strip >"$scratch/log" || exit 1
files() { "$root/cmake/install/files" "$@"; }
mkdir -p "$first/bin" && touch "$first/bin/vxa"
expect "a file of others" "did not install it: .*/a %S folder/fc/bin/vxa$" \
    eval '! files install "$scratch/stage$first" "$first"'
rm -r "$scratch/a %S folder"
if [ "$(id -u)" -eq 0 ]; then
    mkdir -m 775 "$scratch/shared" && mkdir -p "$scratch/theirs/ours"
    chgrp 65534 "$scratch/shared" && chown 65534 "$scratch/theirs"
    ln -s theirs/ours "$scratch/link"
    expect "a folder of a group" "other users can: .*/shared$" \
        eval '! files install "$scratch/stage$first" "$scratch/shared"'
    expect "a link" "other users can: .*/theirs$" \
        eval '! files install "$scratch/stage$first" "$scratch/link/fc"'
    rm "$scratch/link"
fi
expect "the first installation" "" files install "$scratch/stage$first" "$first"
rm "$scratch/stage$first/include/fc/vxi/engine.h"
expect "a version without a file" "" files install "$scratch/stage$first" "$first"
[ ! -e "$first/include/fc/vxi/engine.h" ] || { echo "a file of the old version is left"; exit 1; }
expect "the service" '^ExecStart="/.*/a %%S folder/fc/bin/vxa" ' \
    cat "$first/lib/systemd/system/vxa.service"
mv "$scratch/a %S folder" "$scratch/moved here"

unstripped=$scratch/unstripped
export DESTDIR=$unstripped
"$cmake" --install "$build" >"$scratch/log" || exit 1
for folder in "$root" "$build"; do
    pattern="(^|[^[:alnum:]_./}-])${folder//[^[:alnum:]\/]/.}(/|$)"
    ! grep -rlE "$pattern" --exclude='*.md' "$unstripped" ||
        { echo "these files have the path $folder"; exit 1; }
done

users=("env -i")
[ "$(id -u)" -ne 0 ] || users+=("setpriv --reuid=65534 --regid=65534 --clear-groups env -i")
ln -s "$prefix/bin/vxa" "$scratch/link"
for user in "${users[@]}"; do
    expect "--version, $user" '^vxa [0-9.]+ .*linux, sim' $user "$scratch/link" --version
    expect "a rehearsal, $user" 'normal +2\.8 ' $user "$prefix/bin/vxa" run --engine sim --cycles 1
done
libraries=$(dirname "$(find "$prefix" -name libvxi.so)")
expect "Lua" '^function' env -i "$lua" -e "package.cpath = [[$libraries/lua/5.2/?.so]]
    require 'fc' print(SLB.filter.CheckSystemHealthMetrics)"

# ---- programs that use the libraries ------------------------------------------------------

mkdir "$scratch/program" && cd "$scratch/program" || exit 1
cat >driver.c <<'EOF'
#include <stdio.h>
#include <vxi/vxi.h>
int main(void)
{
    vxi_handle_ops_s* handle = vxi_open();
    printf("available: %d\n", vxi_driver_available(handle));
    vxi_close(handle);
}
EOF
echo '#include <VxaCore/Dom.h>' >core.cpp
echo 'int main() { return sizeof(VxaCore::CDom) == 0; }' >>core.cpp
cat >CMakeLists.txt <<'EOF'
cmake_minimum_required(VERSION 3.25)
project(program)
find_package(fc 1.0 REQUIRED)
add_executable(driver driver.c)
target_link_libraries(driver fc::vxi)
add_executable(core core.cpp)
target_link_libraries(core fc::vxa_core)
EOF
expect "CMake" "Linking CXX executable core" eval '
    "$cmake" -G Ninja -B build -D CMAKE_PREFIX_PATH="$prefix" && "$cmake" --build build'
expect "the program" "available: 1" env VXI_ENGINE=sim build/driver
export PKG_CONFIG_PATH=$libraries/pkgconfig
expect "pkg-config" "available: 1" eval '
    eval cc driver.c -o driver $(pkg-config --cflags --libs vxi) &&
    VXI_ENGINE=sim LD_LIBRARY_PATH=$libraries ./driver'
expect "pkg-config of vxa_core" "-I/usr/include/lua5.2 .*-lvxa_core" \
    pkg-config --cflags --libs vxa_core
cd /

# ---- removal ------------------------------------------------------------------------------

touch "$prefix/share/lua/5.2/mine.lua"
echo mine >>"$prefix/share/vxa/prometheus/alerts.yml"
expect "removal" "^kept, .*/alerts.yml$" files uninstall "$prefix"
diff <(find "$scratch/moved here" -type f | sort) \
    <(printf '%s\n' "$prefix/share/"{lua/5.2/mine.lua,vxa/prometheus/alerts.yml}) || exit 1
rm "$prefix/share/"{lua/5.2/mine.lua,vxa/prometheus/alerts.yml}
expect "a second removal" "has nothing that" eval '! files uninstall "$prefix"'
