#!/usr/bin/env bash
# The main job: flash the bundled example firmware into the built-in simulated module.
# Usage: scripts/demo.sh [--protocol direct|ccb]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build palimbo-cli
exec build/src/cli/palimbo-cli demo "$@"
