# Shared by scripts/package-windows.sh and scripts/test-windows.sh: the cross SDK, the Windows
# build folder and a throwaway Wine prefix. Source it; it defines functions only. Every path is
# looked up when it is asked for, after the script has installed what provides it, and a lookup
# that finds nothing stops the script there, naming the package.

windows_env_die() {
    echo "$(basename "$0"): $*" >&2
    exit 1
}

# The file a path names, or a stop that names the package which provides it.
windows_env_file() {
    local path=$1 package=$2
    [ -f "$path" ] || windows_env_die "$path is missing; it comes with the Debian package $package (apt-get install $package)"
    echo "$path"
}

wine_program() { windows_env_file /usr/lib/wine/wine64 wine64; }
wineserver_program() { windows_env_file /usr/lib/wine/wineserver wine64; }

# The MinGW runtime DLLs the programs load, where the cross compiler itself finds them, one a
# line. Take them with runtime=$(mingw_runtime_dlls), so that a stop here stops the caller.
mingw_runtime_dlls() {
    local compiler=x86_64-w64-mingw32-g++-posix
    command -v "$compiler" >/dev/null ||
        windows_env_die "$compiler is missing; it comes with the Debian package g++-mingw-w64-x86-64-posix"
    windows_env_file "$("$compiler" -print-file-name=libgcc_s_seh-1.dll)" gcc-mingw-w64-x86-64-posix
    windows_env_file "$("$compiler" -print-file-name=libstdc++-6.dll)" g++-mingw-w64-x86-64-posix
    windows_env_file "$("$compiler" -print-file-name=libwinpthread-1.dll)" mingw-w64-x86-64-dev
}

# Builds (or finds) the SDK and configures and builds the Windows programs with CMake's preset
# "windows" (with the test suites, run under Wine) or "windows-package" (the programs alone).
# Sets sdk to the SDK's folder.
build_windows() {
    local preset=$1
    sdk=$(./scripts/windows-sdk.sh)
    [ "$preset" = windows ] && wine_program >/dev/null
    ZENTRIX_WINDOWS_SDK=$sdk cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" -j "$(nproc)" >/dev/null
}

# A fresh Wine prefix of its own (no Mono or Gecko prompts, no debug chatter), made once; the
# caller removes the folder.
make_wine_prefix() {
    local wine wineserver
    wine=$(wine_program)
    wineserver=$(wineserver_program)
    export WINEPREFIX=$1 WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
    rm -rf "$WINEPREFIX"
    "$wine" wineboot -i >/dev/null 2>&1
    "$wineserver" -w
}
