#!/usr/bin/env bash
# Runs kelo-demo offscreen against a kelo-cloud of its own (see with-cloud.sh) and exits with the
# demo's status. Usage: demo-day.sh <kelo-cloud> <kelo-demo> [demo options...]
set -uo pipefail
QT_QPA_PLATFORM=offscreen exec bash "$(dirname "$0")/with-cloud.sh" demo-day "$@"
