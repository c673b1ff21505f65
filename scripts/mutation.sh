#!/usr/bin/env bash
# Mutation testing of the suite: how many deliberate faults in a module's code its tests catch.
# Usage: scripts/mutation.sh [-n N] [--seed S] [--timeout SECONDS] MODULE...
# A MODULE is a name from the table in scripts/mutation.py (box_filter, grid_peaks, mrc, star,
# template_norm, ice_detect, para, or "all" for these) or a source file under src/ (its tests
# are then tests/test_<name>.cpp, or those given with --tests). Mutants come from
# universalmutator (installed with pip when missing), at most N per file (default 20, seeded),
# and run in a copy of the tree (build-mutation/), never in the working tree. Prints the
# score per file (killed / (killed + survived)) and the surviving mutants; the table also goes
# to build-mutation/report.md. A tool for developers, not part of CI: see docs/testing.md.
set -euo pipefail
cd "$(dirname "$0")/.."
if ! command -v mutate >/dev/null 2>&1; then
  python3 -m pip install --quiet universalmutator || python3 -m pip install --quiet --user universalmutator
  export PATH="$PATH:$HOME/.local/bin"
fi
exec python3 scripts/mutation.py "$@"
