#!/usr/bin/env bash
# Everything from a fresh Debian machine to a passed test run: dependencies, format check,
# the normal build and the sanitizer build, and every test of both.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/install-deps.sh
./scripts/format-check.sh
./scripts/build.sh release
./scripts/build.sh sanitize

ctest --preset release
ctest --preset sanitize
