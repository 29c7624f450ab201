#!/usr/bin/env bash
# Everything from a fresh Debian machine to a passed test run: dependencies, format check,
# the normal build and the sanitizer build, and every test of both.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/install-deps.sh
./scripts/format-check.sh
./scripts/build.sh release
./scripts/build.sh sanitize

ctest --test-dir build --output-on-failure
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build-sanitize --output-on-failure
