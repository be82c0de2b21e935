#!/usr/bin/env bash
# What docs/server.md shows of TLS: stunnel in front of the server, and one beside the client.
# usage: checkTls.sh CORVANED SOURCE_DIRECTORY
set -euo pipefail

corvaned=$1 source=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/corvaned-tls.XXXXXX")
started=()

clean_up() {
  local pid
  for pid in "${started[@]}"; do kill "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap clean_up EXIT

fail() {
  echo "FAILED: $*" >&2
  cat "$work"/*.log >&2 || true
  exit 1
}

# await COMMAND...: until it succeeds.
await() {
  for _ in $(seq 300); do
    if "$@" 2>/dev/null; then return; fi
    sleep 0.1
  done
  fail "never succeeded: $*"
}

# configuration NAME: the document's block for that file, its paths and ports those of this run.
configuration() {
  awk -v name="; $1" '/^```/ { open = !open; use = 0; next }
                      open && $0 == name { use = 1 } use { print }' "$source/docs/server.md" |
    sed -e "s|/etc/corvaned|$work|" -e "s|4480|$server_port|" -e "s|5480|$tls_port|" \
      -e "s|6480|$client_port|" -e "s|checkHost = search\.example|checkIP = 127.0.0.1|" -e "s|search\.example|127.0.0.1|" >"$work/$1"
  [ -s "$work/$1" ] || fail "docs/server.md shows no $1"
  printf 'foreground = yes\npid =\n%s\n' "$(cat "$work/$1")" >"$work/$1"
}

start_stunnel() {
  stunnel4 "$work/$1" >"$work/$1.log" 2>&1 &
  started+=($!)
}

free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=127.0.0.1 \
  -addext subjectAltName=IP:127.0.0.1 -keyout "$work/key.pem" -out "$work/certificate.pem" \
  2>"$work/openssl.log"
"$corvaned" --http-port 0 --data "$work/data" --port-file "$work/ports" \
  >"$work/corvaned.log" 2>&1 &
started+=($!)
await test -e "$work/ports"
server_port=$(sed -n 's/^listening http .*://p' "$work/ports")
tls_port=$(free_port)
client_port=$(free_port)
configuration stunnel-server.conf
configuration stunnel-client.conf
start_stunnel stunnel-server.conf
start_stunnel stunnel-client.conf
# reply PORT: what a plain client at this port receives first.
reply() {
  exec 3<>"/dev/tcp/127.0.0.1/$1" || return 1
  printf 'action: getServerVersion\n\r\n' >&3
  local line=
  read -r -t 10 line <&3 2>/dev/null || true
  exec 3>&-
  printf '%s' "${line%$'\r'}"
}

served() { [ "$(reply "$1")" = 'HTTP/1.1 200 OK' ]; }

await served "$client_port"
served "$server_port" || fail "the server does not serve its own machine"
! served "$tls_port" || fail "the encrypted port speaks plain text"
printf 'action: getServerVersion\n\r\n' |
  timeout 20 openssl s_client -quiet -no_ign_eof -CAfile "$work/certificate.pem" \
    -verify_return_error -connect "127.0.0.1:$tls_port" >"$work/session.log" 2>&1 || true
grep -q 'depth=0 CN = 127.0.0.1' "$work/session.log" || fail "no certificate"
echo "a client reaches the server over TLS, and only so"
