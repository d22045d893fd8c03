#!/usr/bin/env bash
# with-env.sh ENVFILE... -- COMMAND [ARG...]
# Runs COMMAND with the environment that service fixtures recorded. A missing
# file means the service's fixture did not run or failed: that is an error.
set -euo pipefail
while [[ $# -gt 0 && $1 != -- ]]; do
    if [[ ! -r $1 ]]; then
        echo "with-env.sh: service environment $1 is missing (did its fixture start?)" >&2
        exit 1
    fi
    # shellcheck disable=SC1090
    source "$1"
    shift
done
[[ ${1:-} == -- ]] && shift
exec "$@"
