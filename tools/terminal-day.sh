#!/usr/bin/env bash
# Runs kelo-terminal against a kelo-cloud of its own (see with-cloud.sh), with the simulator's
# customer button, and exits with the terminal's status.
# Usage: terminal-day.sh <kelo-cloud> <kelo-terminal> [terminal options...], e.g. --screenshots
# DIR for the offscreen walk of the whole day.
set -uo pipefail
cloud=$1; terminal=$2; shift 2
exec bash "$(dirname "$0")/with-cloud.sh" terminal-day "$cloud" "$terminal" --simulator "$@"
