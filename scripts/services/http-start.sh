#!/usr/bin/env bash
# http-start.sh DIR NAME [--tls-cert PEM --tls-key KEY]
# Starts the recording HTTP test server on a free port of 127.0.0.1 and
# writes DIR/NAME.env with ORVANTA_TEST_HTTP_URL, or with the certificate and
# key over TLS, ORVANTA_TEST_HTTPS_URL; the PID goes to DIR/NAME.pid.
set -euo pipefail
dir=$1
name=$2
shift 2
scheme=http
[[ $# -gt 0 ]] && scheme=https
here=$(cd "$(dirname "$0")" && pwd)
server=$here/../../tests/feedback/server/http_test_server.py
mkdir -p "$dir"
rm -f "$dir/$name.env" "$dir/$name.port" "$dir/$name.pid"
/usr/bin/python3 "$server" --port 0 --port-file "$dir/$name.port" --pid-file "$dir/$name.pid" "$@" \
    >"$dir/$name.log" 2>&1 </dev/null &
for _ in $(seq 1 100); do
    [[ -s $dir/$name.port ]] && break
    if ! kill -0 $! 2>/dev/null; then
        echo "http-start.sh: the server exited; see $dir/$name.log" >&2
        exit 1
    fi
    sleep 0.1
done
if [[ ! -s $dir/$name.port ]]; then
    echo "http-start.sh: the server did not report its port" >&2
    kill "$!" 2>/dev/null || true
    exit 1
fi
port=$(cat "$dir/$name.port")
echo "export ORVANTA_TEST_${scheme^^}_URL=$scheme://127.0.0.1:$port" >"$dir/$name.env"
