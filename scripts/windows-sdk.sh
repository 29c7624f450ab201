#!/usr/bin/env bash
# Builds the Windows SDK the cross build links against: Qt's Core, Network and Sql with the
# PostgreSQL driver, OpenSSL (libcrypto, libssl), libpq, GoogleTest and, for the tests of a local
# server, PostgreSQL's own server programs, all from Debian's source packages of the versions this
# machine has, with the MinGW-w64 cross compilers.
#
# The SDK goes to $ZENTRIX_WINDOWS_SDK_CACHE/<versions> (default ~/.cache/zentrix-windows-sdk),
# one folder per set of versions, so a new Debian point release builds a new one. Each component
# is built once; with the SDK in place the script returns in seconds. The SDK's path is the only
# thing printed on standard output; progress goes to standard error.
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)

say() { echo "windows-sdk: $*" >&2; }

"$repo/scripts/install-deps.sh" g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix dpkg-dev \
    ninja-build make perl >&2

cache=${ZENTRIX_WINDOWS_SDK_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/zentrix-windows-sdk}

# apt-get source through a deb-src list of our own, for the Debian archives the machine already
# uses; the machine's own sources and package lists stay as they are. The list is read once and
# kept with the cache, so the versions below stay put until the cache is removed.
apt_dir="$cache/apt"
apt_options=(-o "Dir::Etc::SourceList=$apt_dir/sources.list" -o "Dir::Etc::SourceParts=$apt_dir/parts"
    -o "Dir::State::Lists=$apt_dir/lists" -o "Dir::Cache=$apt_dir/cache" -o "APT::Sandbox::User=root")
if [ ! -e "$apt_dir/updated" ]; then
    mkdir -p "$apt_dir/parts" "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial"
    apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' 'Identifier: Packages' |
        grep -E '^https?://[^ ]*/debian(-security)?/ ' | sort -u | sed 's/^/deb-src /' >"$apt_dir/sources.list"
    apt-get "${apt_options[@]}" update -qq >&2
    touch "$apt_dir/updated"
fi

# Each library is built in the version of the Linux build's own package where the archive still
# serves its source, else in the newest it serves. Qt must match exactly: its host tools (moc, rcc
# from qt6-base-dev) generate code for the Qt they come with. Sources are kept with the cache; apt's
# answers go to a log, and a fallback is said in one line of its own.
sources="$cache/sources"
logs="$cache/logs"
mkdir -p "$sources" "$logs"
source_version() {
    local package=$1 installed=$2 candidates version log="$logs/sources.log" missing=()
    candidates=$( (echo "$installed"; apt-cache "${apt_options[@]}" showsrc "$package" |
        sed -n 's/^Version: //p' | sort -urV) | awk '!seen[$0]++')
    for version in $candidates; do
        if [ -e "$sources/${package}_$version.dsc" ] || { [ ! -e "$sources/${package}_$version.unavailable" ] &&
            (cd "$sources" && echo "== $package $version" &&
                apt-get "${apt_options[@]}" source --download-only -qq "$package=$version") >>"$log" 2>&1; }; then
            [ "${#missing[@]}" -eq 0 ] ||
                say "$package: the archive does not serve the source of ${missing[*]}; building $version instead (apt's answers: $log)"
            echo "$version"
            return
        fi
        touch "$sources/${package}_$version.unavailable"
        missing+=("$version")
    done
    say "no source of $package can be fetched (tried ${missing[*]}; apt's answers: $log)"
    exit 1
}
installed_source() { dpkg-query -W -f='${source:Version}' "$1"; }
# One assignment each: a failing lookup inside a compound assignment would not stop the script.
declare -A versions
versions[openssl]=$(source_version openssl "$(installed_source libssl-dev)")
versions[postgresql-15]=$(source_version postgresql-15 "$(installed_source libpq-dev)")
versions[qt6-base]=$(source_version qt6-base "$(installed_source qt6-base-dev)")
versions[googletest]=$(source_version googletest "$(installed_source libgtest-dev)")
versions[postgresql-server]=${versions[postgresql-15]}
if [ "${versions[qt6-base]}" != "$(installed_source qt6-base-dev)" ]; then
    say "the archive no longer serves qt6-base $(installed_source qt6-base-dev), the version of this machine's Qt tools"
    exit 1
fi
mingw_version=$(dpkg-query -W -f='${Version}' g++-mingw-w64-x86-64-posix)
key="win64-openssl_${versions[openssl]}-pg_${versions[postgresql-15]}-qt_${versions[qt6-base]}"
key+="-gtest_${versions[googletest]}-gcc_${mingw_version%%-*}"
sdk="$cache/$key"
work="$cache/build"
mkdir -p "$sdk/.built"

unpack_source() {
    local package=$1 version=$2 into=$3
    rm -rf "$into" && mkdir -p "$into"
    dpkg-source --no-check -x "$sources/${package}_${version#*:}.dsc" "$into/source"
}

# Runs one component's build with its output in a log of its own; shows the log's end on failure.
step=0
steps=5
component() {
    local name=$1 builder=$2 log="$logs/$1.log"
    step=$((step + 1))
    if [ -e "$sdk/.built/$name" ]; then
        say "[$step/$steps] $name ${versions[$name]}: in place"
        return
    fi
    say "[$step/$steps] $name ${versions[$name]}: fetching and building (log: $log)"
    local started=$SECONDS status
    # Not in a condition, where bash would ignore the builder's own errexit.
    set +e
    (set -ex && "$builder" "$work/$name" "${versions[$name]}") >"$log" 2>&1
    status=$?
    set -e
    if [ "$status" -ne 0 ]; then
        tail -n 40 "$log" >&2
        say "building $name failed; the whole log is $log"
        exit 1
    fi
    touch "$sdk/.built/$name"
    rm -rf "$work/$name"
    say "[$step/$steps] $name: built in $((SECONDS - started)) s"
}

host=x86_64-w64-mingw32
jobs=$(nproc)
toolchain="$repo/cmake/mingw-w64-x86_64.cmake"

build_openssl() {
    unpack_source openssl "$2" "$1"
    cd "$1/source"
    CC=$host-gcc-posix CXX=$host-g++-posix AR=$host-ar RANLIB=$host-ranlib RC=$host-windres \
        ./Configure mingw64 shared no-tests --prefix="$sdk" --libdir=lib
    make -j "$jobs" build_libs
    make install_dev install_runtime_libs
}

# libpq only, with TLS through the OpenSSL above; its import library comes out as libpq.a.
build_postgresql() {
    unpack_source postgresql-15 "$2" "$1"
    cd "$1/source"
    CC=$host-gcc-posix ./configure --build=x86_64-pc-linux-gnu --host=$host --prefix="$sdk" \
        --without-readline --without-zlib --without-icu --without-llvm --with-ssl=openssl \
        --with-includes="$sdk/include" --with-libraries="$sdk/lib"
    make -C src/interfaces/libpq -j "$jobs"
    make -C src/interfaces/libpq install
    make -C src/include install
}

# The server's own programs, for the tests of a server the tool manages itself: initdb.exe,
# pg_ctl.exe and postgres.exe with what they load, in a folder of their own. The time zone data
# is compiled by the build machine's zic (the one built here is a Windows program).
build_postgresql-server() {
    unpack_source postgresql-15 "$2" "$1"
    cd "$1/source"
    CC=$host-gcc-posix ./configure --build=x86_64-pc-linux-gnu --host=$host --prefix="$sdk/postgresql" \
        --without-readline --without-zlib --without-icu --without-llvm --with-ssl=openssl \
        --with-includes="$sdk/include" --with-libraries="$sdk/lib"
    local dir
    for dir in src/port src/common src/backend src/backend/utils/mb/conversion_procs src/backend/snowball src/pl/plpgsql \
        src/bin/initdb src/bin/pg_ctl; do
        make -C "$dir" -j "$jobs"
        make -C "$dir" install
    done
    make -C src/timezone install ZIC=/usr/sbin/zic
}

build_qt6-base() {
    unpack_source qt6-base "$2" "$1"
    cmake -S "$1/source" -B "$1/build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
        -DZENTRIX_WINDOWS_SDK="$sdk" -DQT_HOST_PATH=/usr -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_INSTALL_PREFIX="$sdk" -DPostgreSQL_ROOT="$sdk" \
        -DQT_BUILD_EXAMPLES=OFF -DQT_BUILD_TESTS=OFF -DQT_BUILD_BENCHMARKS=OFF \
        -DFEATURE_gui=OFF -DFEATURE_widgets=OFF -DFEATURE_dbus=OFF -DFEATURE_opengl=OFF \
        -DFEATURE_icu=OFF -DFEATURE_concurrent=OFF -DFEATURE_xml=OFF -DFEATURE_testlib=OFF \
        -DFEATURE_printsupport=OFF -DFEATURE_openssl=OFF -DFEATURE_glib=OFF -DFEATURE_zstd=OFF \
        -DFEATURE_brotli=OFF -DFEATURE_libproxy=OFF -DFEATURE_gssapi=OFF \
        -DFEATURE_system_zlib=OFF -DFEATURE_system_pcre2=OFF -DFEATURE_system_doubleconversion=OFF \
        -DFEATURE_sql_psql=ON -DFEATURE_sql_sqlite=OFF -DFEATURE_sql_odbc=OFF \
        -DFEATURE_sql_mysql=OFF -DFEATURE_sql_ibase=OFF -DFEATURE_sql_oci=OFF -DFEATURE_sql_db2=OFF
    cmake --build "$1/build" -j "$jobs"
    cmake --install "$1/build"
}

build_googletest() {
    unpack_source googletest "$2" "$1"
    cmake -S "$1/source" -B "$1/build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
        -DZENTRIX_WINDOWS_SDK="$sdk" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$sdk"
    cmake --build "$1/build" -j "$jobs"
    cmake --install "$1/build"
}

component openssl build_openssl
component postgresql-15 build_postgresql
component qt6-base build_qt6-base
component googletest build_googletest
component postgresql-server build_postgresql-server
echo "$sdk"
