#!/usr/bin/env bash
# Builds the tool and its tests. "./scripts/build.sh" gives build/; "./scripts/build.sh sanitize"
# gives build-sanitize/ with AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."

variant="${1:-release}"
case "$variant" in
    release) dir=build; options=(-DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
    sanitize) dir=build-sanitize; options=(-DCMAKE_BUILD_TYPE=Debug -DZENTRIX_SANITIZE=ON) ;;
    *) echo "usage: $0 [release|sanitize]" >&2; exit 2 ;;
esac

cmake -S . -B "$dir" "${options[@]}" >/dev/null
cmake --build "$dir" -j "$(nproc)" -- --no-print-directory
