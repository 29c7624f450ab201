#!/usr/bin/env bash
# Installs the Debian packages the project needs, only those that are missing, without questions.
# Extra package names given as arguments are installed the same way.
set -euo pipefail

packages=(qt6-base-dev libqt6sql6-psql libssl-dev libpq-dev pkg-config postgresql cmake g++ libgtest-dev clang-format openssl strace "$@")

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done

if [ "${#missing[@]}" -eq 0 ]; then
    exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
