# Shared by scripts/demo.sh and bench/run.sh: sandbox installations of the product and the
# account its database server runs under. Source it; it defines functions and variables only.

# Sourced after scripts/install-deps.sh has installed PostgreSQL.
pgbin=$(ls -d /usr/lib/postgresql/*/bin 2>/dev/null | sort -V | tail -n 1)
if [ -z "$pgbin" ]; then
    echo "$(basename "$0"): no PostgreSQL programs in /usr/lib/postgresql/*/bin; they come with the Debian package postgresql" >&2
    exit 1
fi

# PostgreSQL refuses to run as root: as root, installations belong to "postgres" and the
# server programs run under that account.
if [ "$(id -u)" -eq 0 ]; then account=postgres; else account=$(id -un); fi
as_account() {
    if [ "$(id -un)" = "$account" ]; then "$@"; else runuser -u "$account" -- "$@"; fi
}

# The first loopback port from $1 on that nothing answers on.
free_port() {
    local port=$1
    while (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do port=$((port + 1)); done
    echo "$port"
}

# ROOT/install (with postgres/bin linking to the PostgreSQL programs), ROOT/data/logs and
# ROOT/work holding the configuration file the tool reads from its working directory.
make_installation() {
    local root=$1
    mkdir -p "$root/install/postgres/bin" "$root/data/logs" "$root/work"
    chmod 755 "$root" "$root/data"
    for program in "$pgbin"/*; do ln -s "$program" "$root/install/postgres/bin/"; done
    chown -R "$account" "$root/install"
    cat >"$root/work/HKEY_LOCAL_MACHINE\\Software\\Tarvex\\Bravik" <<CONF
InstallationFolder=$root/install
[global]
restaddress=127.0.0.1
restport=8008
[internal]
data_directory=$root/data
CONF
}
