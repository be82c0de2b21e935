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

# make_certificate NAME HOST
make_certificate() {
  openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "/CN=$2" -addext "subjectAltName=DNS:$2" \
    -keyout "$work/$1-key.pem" -out "$work/$1.pem" 2>"$work/openssl.log"
}

# configuration TUNNEL NAME: the document's block for that file, its paths and ports those of the
# tunnel.
configuration() {
  awk -v name="; $2" '/^```/ { open = !open; use = 0; next }
                      open && $0 == name { use = 1 } use { print }' "$source/docs/server.md" |
    sed -e "s|4480|$server_port|" -e "s|5480|$tls_port|" -e "s|6480|$client_port|" \
      -e "s|connect = search\.example|connect = 127.0.0.1|" >"$work/$1-$2"
  [ -s "$work/$1-$2" ] || fail "docs/server.md shows no $2"
  printf 'foreground = yes\npid =\ndebug = info\n%s\n' "$(cat "$work/$1-$2")" >"$work/$1-$2"
}

free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# listens PROCESS LOG: that end of a tunnel has its port. False when it has ended without one.
listens() {
  until grep -q ' bound to ' "$2"; do
    kill -0 "$1" 2>/dev/null || return 1
    sleep 0.1
  done
}

# tunnel NAME PORT CERTIFICATE TRUSTED: from a new client_port to this port of the server, which
# shows the one certificate to a client that trusts the other. Others may have taken a port that was
# free.
tunnel() {
  for _ in $(seq 10); do
    if open_tunnel "$@"; then return; fi
  done
  fail "no ports for the tunnel $1"
}

# open_tunnel: the same, false when one of its ports was taken.
open_tunnel() {
  local end log
  server_port=$2
  tls_port=$(free_port)
  client_port=$(free_port)
  configuration "$1" stunnel-server.conf
  configuration "$1" stunnel-client.conf
  sed -i -e "s|/etc/corvaned/certificate|$work/$3|" -e "s|/etc/corvaned/key|$work/$3-key|" \
    "$work/$1-stunnel-server.conf"
  sed -i "s|/etc/corvaned/certificate|$work/$4|" "$work/$1-stunnel-client.conf"
  for end in server client; do
    log=$work/$1-stunnel-$end.conf.log
    : >"$log"
    stunnel4 "$work/$1-stunnel-$end.conf" >"$log" 2>&1 &
    started+=($!)
    listens $! "$log" || return 1
  done
}

# reply PORT AUTHORIZATION: what a plain client at this port receives first.
reply() {
  exec 3<>"/dev/tcp/127.0.0.1/$1" || return 1
  printf 'action: getServerVersion\nAuthorization: %s\n\r\n' "$2" >&3
  local line=
  read -r -t 10 line <&3 2>/dev/null || true
  exec 3>&-
  printf '%s' "${line%$'\r'}"
}

# binary_reply PORT AUTHORIZATION: the code of the reply in the binary protocol.
binary_reply() {
  local block
  block=$(printf 'action: getStatus\nAuthorization: %s\n\r\nx' "$2")
  block=${block%x}
  exec 3<>"/dev/tcp/127.0.0.1/$1" || return 1
  printf "\\0\\$(printf %o ${#block})%s" "$block" >&3
  timeout 10 head -c 2 <&3 | od -An -tu1
  exec 3>&-
}

passes_binary() { [ "$(binary_reply "$1" "$who" | tr -s ' ')" = ' 0 1' ]; }

served() { [ "$(reply "$1" "$who")" = 'HTTP/1.1 200 OK' ]; }

# turned_away NAME PORT REASON: the client's end of the tunnel ends it for that reason.
turned_away() {
  # In a shell of its own: writing into a tunnel that has ended ends the shell.
  (reply "$2" "$who") >"$work/passed" || true
  grep -q "$3" "$work/$1-stunnel-client.conf.log"
}

make_certificate right search.example
make_certificate strange search.example
make_certificate misnamed other.example
who="Bearer $("$corvaned" token client --users "$work/users" --allow 'read:*')"
"$corvaned" --http-port 0 --binary-port 0 --data "$work/data" --users "$work/users" \
  --port-file "$work/ports" >"$work/corvaned.log" 2>&1 &
started+=($!)
await test -e "$work/ports"
http_port=$(sed -n 's/^listening http .*://p' "$work/ports")
binary_port=$(sed -n 's/^listening binary .*://p' "$work/ports")

tunnel strange "$http_port" strange right
await turned_away strange "$client_port" 'Rejected by CERT'
[ ! -s "$work/passed" ] || fail "a server with another certificate was believed"
tunnel misnamed "$http_port" misnamed misnamed
await turned_away misnamed "$client_port" 'Subject checks failed'
[ ! -s "$work/passed" ] || fail "a server with another name was believed"

tunnel binary "$binary_port" right right
await passes_binary "$client_port"
[ "$(binary_reply "$client_port" "$who." | tr -s ' ')" = ' 1 145' ] ||
  fail "a wrong token passes over the binary protocol"

tunnel http "$http_port" right right
await served "$client_port"
[ "$(reply "$client_port" "$who.")" = 'HTTP/1.1 401 Unauthorized' ] || fail "a wrong token passes"
served "$server_port" || fail "the server does not serve its own machine"
! served "$tls_port" || fail "the encrypted port speaks plain text"
printf 'action: getServerVersion\n\r\n' |
  timeout 20 openssl s_client -quiet -no_ign_eof -CAfile "$work/right.pem" \
    -verify_hostname search.example -verify_return_error -connect "127.0.0.1:$tls_port" \
    >"$work/session.log" 2>&1 || true
grep -q 'depth=0 CN = search.example' "$work/session.log" || fail "no certificate"
echo "a client reaches the server over TLS, and only so, and no other server"
