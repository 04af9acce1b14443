#!/usr/bin/env bash
# Builds everything and runs the demo on its built-in sample volume.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
bash "$root/scripts/build.sh"
"$root/build/examples/tm_demo" "$@"
