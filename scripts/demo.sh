#!/usr/bin/env bash
# Runs the tool's main job on a self-contained demo installation.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
./scripts/build.sh release
echo "The demo is not ready yet: the run driver has not landed. The build in build/ is complete." >&2
exit 1
