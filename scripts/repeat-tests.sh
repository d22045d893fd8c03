#!/usr/bin/env bash
# repeat-tests.sh [N] [CTEST-ARGUMENT...]
# Runs the built suite (build/) N times in a row, 10 by default, each run with
# its own service fixtures, and counts the runs that failed. Extra arguments go
# to ctest, e.g. `-R '^tst_qtaudiocapture$'`. Logs: build/repeat/run-<i>.log.
set -uo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
runs=${1:-10}
shift || true
logs=$root/build/repeat
mkdir -p "$logs"
passed=0
failed=0
for i in $(seq 1 "$runs"); do
    if ctest --test-dir "$root/build" --output-on-failure --timeout 900 "$@" >"$logs/run-$i.log" 2>&1; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        echo "run $i failed:"
        grep -E '\*\*\*|FAIL!' "$logs/run-$i.log" | head -5
    fi
done
echo "repeat-tests: $passed passed, $failed failed"
((failed == 0))
