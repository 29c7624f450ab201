#!/usr/bin/env bash
# Builds the tool and its tests. "./scripts/build.sh" gives build/; "./scripts/build.sh sanitize"
# gives build-sanitize/ with AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."

# The folders and options are CMake's presets of the same names (CMakePresets.json).
variant="${1:-release}"
case "$variant" in
    release | sanitize) ;;
    *) echo "usage: $0 [release|sanitize]" >&2; exit 2 ;;
esac

cmake --preset "$variant" >/dev/null
cmake --build --preset "$variant" -j "$(nproc)" -- --no-print-directory
