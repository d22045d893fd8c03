#!/usr/bin/env bash
# https-start.sh DIR NAME
# Makes a throw-away certificate authority and a server certificate for
# 127.0.0.1 signed by it, starts the recording HTTP test server over TLS on a
# free port of 127.0.0.1 and writes DIR/NAME.env with ORVANTA_TEST_HTTPS_URL
# and ORVANTA_TEST_HTTPS_CA (the authority's certificate, PEM). Stopped by
# http-stop.sh.
set -euo pipefail
dir=$1
name=$2
here=$(cd "$(dirname "$0")" && pwd)
tls=$dir/$name.tls
mkdir -p "$dir"
rm -rf "$tls"
mkdir -p "$tls"

openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "/CN=Orvanta test authority" \
    -keyout "$tls/ca.key" -out "$tls/ca.pem" \
    -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign" \
    2>"$tls/openssl.log"
openssl req -newkey rsa:2048 -nodes -subj "/CN=127.0.0.1" \
    -keyout "$tls/server.key" -out "$tls/server.csr" 2>>"$tls/openssl.log"
printf '%s\n' "basicConstraints=CA:FALSE" "keyUsage=critical,digitalSignature,keyEncipherment" \
    "extendedKeyUsage=serverAuth" "subjectAltName=IP:127.0.0.1" >"$tls/server.ext"
openssl x509 -req -in "$tls/server.csr" -CA "$tls/ca.pem" -CAkey "$tls/ca.key" -CAcreateserial \
    -days 2 -extfile "$tls/server.ext" -out "$tls/server.pem" 2>>"$tls/openssl.log"

"$here/http-start.sh" "$dir" "$name" --tls-cert "$tls/server.pem" --tls-key "$tls/server.key"
echo "export ORVANTA_TEST_HTTPS_CA=$tls/ca.pem" >>"$dir/$name.env"
