# Shared by scripts/package-windows.sh and scripts/test-windows.sh: the cross SDK, the Windows
# build folder and a throwaway Wine prefix. Source it; it defines functions and variables only.

wine=/usr/lib/wine/wine64
mingw_runtime=(/usr/lib/gcc/x86_64-w64-mingw32/*-posix/libgcc_s_seh-1.dll
    /usr/lib/gcc/x86_64-w64-mingw32/*-posix/libstdc++-6.dll /usr/x86_64-w64-mingw32/lib/libwinpthread-1.dll)

# Builds (or finds) the SDK and configures and builds the Windows programs, with or without
# their test suites, into the given folder.
build_windows() {
    local dir=$1 tests=$2
    sdk=$(./scripts/windows-sdk.sh)
    cmake -S . -B "$dir" -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake \
        -DZENTRIX_WINDOWS_SDK="$sdk" -DCMAKE_PREFIX_PATH="$sdk" -DOPENSSL_ROOT_DIR="$sdk" -DPostgreSQL_ROOT="$sdk" \
        -DCMAKE_BUILD_TYPE=Release -DZENTRIX_BUILD_TESTS="$tests" -DCMAKE_CROSSCOMPILING_EMULATOR="$wine" >/dev/null
    cmake --build "$dir" -j "$(nproc)" >/dev/null
}

# A fresh Wine prefix of its own (no Mono or Gecko prompts, no debug chatter), made once; the
# caller removes the folder.
make_wine_prefix() {
    export WINEPREFIX=$1 WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
    rm -rf "$WINEPREFIX"
    "$wine" wineboot -i >/dev/null 2>&1
    /usr/lib/wine/wineserver -w
}
