#!/usr/bin/env bash
# Runs zebmqtt and the examples, which lie beside this file, against a broker of its own, as a user would.
# Called with the name of a group: a function below that begins with test_.
set -um # each program in the background is a job of its own, so that it can be interrupted
PATH=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd):$PATH:/usr/sbin
tmp=$(mktemp -d) && : >"$tmp/err"
faults=0 listeners=0 broker="" port=0 settings=() host=()

finish() {
  trap - EXIT
  for job in $(jobs -p); do kill -KILL -- "-$job"; done 2>/dev/null
  { wait && rm -rf "$tmp"; } 2>/dev/null
  exit $((faults != 0))
}
trap finish EXIT && trap 'fault "nothing more after 100 s"; exit' TERM
(sleep 100 && kill "$$") &

fault() {
  { echo "FAILED at lines ${BASH_LINENO[*]}: $*" && sed 's/^/  standard error: /' "$tmp/err"; } >&2
  faults=$((faults + 1))
}
await() { # await COMMAND...: until it succeeds, for at most 30 s
  for ((look = 0; look < 600; ++look)); do "$@" >/dev/null 2>&1 && return || sleep 0.05; done
  fault "never came: $*"
}
logged() { await grep -q -- "$1" "$tmp/log"; } # by the broker
says() { grep -qE -- "$1" "$tmp/${2-err}" || fault "${2-err} lacks: $1"; }
prints() { says "$1" out; }
equals() { # equals TEXT: standard output, as printf makes the text
  cmp -s "$tmp/out" <(printf -- "$1") || fault "standard output is not '$1': $(head -c 200 "$tmp/out" | od -c)"
}
run() { # run CODE COMMAND...: ends with the code; keeps both outputs
  local code=$1 got=0
  timeout 60 "${@:2}" >"$tmp/out" 2>"$tmp/err" || got=$?
  ((got == code)) || fault "exit code $got, not $code: ${*:2}"
}
ends() { # ends CODE JOB
  local got=0
  wait "$2" 2>/dev/null || got=$?
  ((got == $1)) || fault "exit code $got, not $1"
}
pub() { zebmqtt pub "${host[@]}" "$@" 2>"$tmp/err" || fault "pub $*"; }
# listen OPTION...: sub in the background, as "listener-<n>"; returns once it is subscribed
listen() {
  ((++listeners))
  zebmqtt sub "${host[@]}" -i "listener-$listeners" -W 60 "$@" >"$tmp/out" 2>"$tmp/err" &
  listener=$!
  logged "Sending SUBACK to listener-$listeners"
}
start_broker() { # start_broker SETTING...: once more on the port that it had
  local first=$port
  for _ in {1..20}; do
    ((first != 0)) || port=$((20000 + RANDOM % 10000)) # may be taken
    settings=("$@") host=(-h 127.0.0.1 -p "$port")
    printf '%s\n' "listener $port 127.0.0.1" "allow_anonymous true" "user $(id -un)" "$@" >"$tmp/conf"
    : >"$tmp/log" # here: the program in the background is late to do so
    mosquitto -v -c "$tmp/conf" >"$tmp/log" 2>&1 8>&- 9>&- &
    broker=$!
    await grep -qE ' running$|rror' "$tmp/log"
    grep -q ' running$' "$tmp/log" && return || wait "$broker"
  done
  fault "no broker: $(cat "$tmp/log")"
}
stop_broker() { kill "$broker" && wait "$broker"; }

certify() { # makes CAs and what one of them vouches for; the broker's settings
  cd "$tmp" || return
  make() { openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj "/CN=$1" -keyout "$1.key" \
    -out "$1.pem" "${@:2}" 2>/dev/null; }
  make ca && make other
  for name in server client; do make $name -CA ca.pem -CAkey ca.key -addext subjectAltName=IP:127.0.0.1; done
  tls=("cafile $tmp/ca.pem" "certfile $tmp/server.pem" "keyfile $tmp/server.key")
}

test_messages() { start_broker && exchange; }
test_messages_over_tls() { certify && start_broker "${tls[@]}" && host+=(--cafile ca.pem) && exchange; }
exchange() { # options of sub | options of pub | its standard input | what sub prints
  printf 'a\0\xFF\n' >"$tmp/file"
  for version in 311 5; do
    while IFS='|' read -r sub pub input output; do
      eval "listen -V $version -t 't/#' $sub"
      eval "pub -V $version -t t/x $pub" < <(printf "$input")
      ends 0 "$listener" && equals "$output"
      [[ ! -s $tmp/err ]] || fault "noise on standard error"
    done <<'ROWS'
-C 1|-m hello||hello\n
-C 1 -q 1 -F '%m %p'|-q 1 -m '[1,2]'||1 [1,2]\n
-C 1 -q 2 -F '%m %p'|-q 2 -m '{}'||1 {}\n
-C 1 -q 1 -F %m|-q 0 --message=-dash||0\n
-C 3 -v|-q 1 -l|one\n\nlast|t/x one\nt/x \nt/x last\n
-C 1 -N|-s|a\0b\n\n|a\0b\n\n
-C 1 -N -F '%x %l%% %t\t\\\n'|-f "$tmp/file"||6100ff0a 4%% t/x\t\\\n
-C 1 -t other|-m ''||\n
ROWS
  done
  for qos in 0 1 2; do
    listen -t t -q $qos -C 1 -N -F %l
    pub -t t -q $qos -s < <(head -c 100000 /dev/zero) && ends 0 "$listener" && equals 100000
  done
  listen -t t -C 1 -F '%I %U'
  printf -v now '%(%s)T' && pub -t t -m x && ends 0 "$listener" && printf -v later '%(%s)T'
  prints "^($(date -d "@$now" +%F)|$(date -d "@$later" +%F))T[0-9:]{8}[+-][0-9]{4} (${now::8}|${later::8})[0-9]{2}\.[0-9]{6}$"
  pub -t kept -r -m kept && run 0 zebmqtt sub "${host[@]}" -t kept -C 1 && equals 'kept\n'
  pub -t kept -r -m '' && run 0 zebmqtt sub "${host[@]}" -t kept -W 3 -c -i sleeper -q 1 -V 5 && equals ''
  pub -t kept -q 1 -m later && run 0 zebmqtt sub "${host[@]}" -t kept -C 1 -c -i sleeper -q 1 -V 5 && equals 'later\n'
  run 0 zebmqtt pub "${host[@]}" -V 5 -D name=a=b -D other=x -t t -m x --debug
  says 'user_property \[name\]:\[a=b\]' && says 'user_property \[other\]:\[x\]'
}

test_exit_codes() { # code | what standard error says | options; nobody listens on port 1
  start_broker && head -c 100001 /dev/zero >"$tmp/large"
  while IFS='|' read -r code text options; do
    eval "run $code zebmqtt $options" && says "$text"
  done <<'ROWS'
1|a command is needed|
1|not expected: -x|pub -x
1|one of -m, -f, -l and -s|pub -t a -m b -l
1|unknown %q|sub -t a -F %q
1|-c needs -i|sub -t a -c
1|-D needs -V 5|pub -t a -m b -D c=d
1|needs a user name|pub -t a -m b -P c
2|cannot reach 127.0.0.1:1 |pub -h 127.0.0.1 -p 1 -t a -m b
2|cannot use the CA|status "${host[@]}" --cafile /nowhere/ca
3|larger than the 100000 bytes|pub "${host[@]}" -t a -f "$tmp/large"
3|a line is larger|pub "${host[@]}" -t a -l <"$tmp/large"
5|the time is over|sub "${host[@]}" -t a -W 1 -C 1
ROWS
  run 6 bash -c "zebmqtt ping ${host[*]} -C 1 >/dev/full" && says 'No space left'
  run 0 bash -o pipefail -c "zebmqtt sub ${host[*]} -t a | true" # ends although no message comes
  run 0 zebmqtt --help && prints 'Exit codes'
  listen -t a && stop_broker && ends 4 "$listener" && says 'connection to 127.0.0.1:[0-9]+ lost: the broker closed it'
}

test_ending() {
  start_broker
  mkfifo "$tmp/silent" "$tmp/stalled" && exec 8<>"$tmp/silent" 9<>"$tmp/stalled"
  while read -r signal code expected; do # a KILL leaves no time for DISCONNECT
    zebmqtt sub "${host[@]}" -i "mortal-$signal" -t x --will-topic w --will-payload will --will-qos 1 &
    mortal=$! && logged "Sending SUBACK to mortal-$signal"
    listen -t w -C 1
    kill -"$signal" "$mortal" && ends "$code" "$mortal"
    [[ $signal == KILL ]] || pub -t w -m none -q 1
    ends 0 "$listener" && equals "$expected\n"
  done <<<$'INT 130 none\nTERM 143 none\nHUP 129 none\nKILL 137 will'
  zebmqtt pub "${host[@]}" -i waiting -t x -l <&8 & # for a line
  logged 'Sending CONNACK to waiting' && kill -INT $! && ends 130 $!
  zebmqtt sub "${host[@]}" -i stalled -t x >&9 & # by a reader that does not read
  logged 'Sending SUBACK to stalled'
  for _ in 1 2; do pub -t x -q 1 -s < <(head -c 60000 /dev/zero); done
  kill -INT $! && ends 130 $! && logged 'Received DISCONNECT from stalled'
}

test_credentials() {
  : >"$tmp/passwords" && mosquitto_passwd -b "$tmp/passwords" joe 'se cret' && echo 'se cret' >"$tmp/secret"
  start_broker "password_file $tmp/passwords" "allow_anonymous false"
  for version in 311 5; do
    me=(zebmqtt status "${host[@]}" -u joe -V "$version")
    run 0 "${me[@]}" -P 'se cret' && prints '^status: session established$'
    run 0 "${me[@]}" --password-file "$tmp/secret"
    run 0 env ZEBMQTT_PASSWORD='se cret' "${me[@]}"
    run 2 env ZEBMQTT_PASSWORD='se cret' "${me[@]}" -P no && says 'refuses: not authorized \(0x(05|87)\)'
    prints '^connack: not authorized'
  done
}

test_ping_and_progress() {
  start_broker
  run 0 zebmqtt ping "${host[@]}" -C 3 --interval 0.05
  prints '^answer from 127.0.0.1:[0-9]+: seq=3 time=[0-9]+\.[0-9]{3} ms$'
  prints '^3 pings transmitted, 3 received, 0% loss, time [0-9]+ ms$'
  prints '^rtt min/avg/max/mdev = ([0-9.]+/){3}[0-9.]+ ms$'
  pub="seq 20000 >$tmp/lines && zebmqtt pub ${host[*]} -t a -q 1 -l <$tmp/lines"
  run 0 bash -c "$pub" && [[ ! -s $tmp/err ]] || fault "progress where nobody looks"
  run 0 script -qec "$pub" /dev/null
  prints '[0-9]+ messages, [0-9]+/s, [0-9.]+ k?B of 108.9 kB \([0-9]+%\), [0-9]+ s left'
  prints '20000 messages, [0-9]+/s, 108.9 kB'
}

test_retry() {
  run 2 zebmqtt pub -h 127.0.0.1 -p 1 -t a -m b --retry 1
  (($(grep -c 'again in' "$tmp/err") == 1)) || fault "not one more attempt"
  run 2 zebmqtt pub -h 127.0.0.1 -p 1 -t a -m b --retry-time 1
  start_broker && stop_broker
  zebmqtt sub "${host[@]}" -i patient -t a -C 2 --retry-time 30 >"$tmp/out" 2>"$tmp/err" &
  patient=$! && await grep -q 'again in' "$tmp/err"
  for message in first second; do
    start_broker
    logged 'Sending SUBACK to patient'
    zebmqtt pub "${host[@]}" -t a -m "$message" && await grep -q "$message" "$tmp/out" && stop_broker
  done
  ends 0 "$patient" && equals 'first\nsecond\n'
}

test_tls() { # exit code | options
  certify && start_broker "${tls[@]}" "require_certificate true"
  while read -r code options; do eval "run $code zebmqtt status -p $port -V 5 $options"; done <<'ROWS'
0 -h 127.0.0.1 --cafile ca.pem --cert client.pem --key client.key
0 -h 127.0.0.1 --cafile ca.pem --cert client.pem --key client.key --ciphers TLS_AES_128_GCM_SHA256
2 -h 127.0.0.1 --cafile ca.pem --cert client.pem --key client.key --ciphers NONE
2 -h 127.0.0.1 --cafile ca.pem --cert other.pem --key other.key
2 -h 127.0.0.1 --cafile ca.pem
2 -h 127.0.0.1 --cafile other.pem --cert client.pem --key client.key
2 -h 127.0.0.1 --tls --cert client.pem --key client.key
2 -h localhost --cafile ca.pem --cert client.pem --key client.key
ROWS
  says 'or not trust it'
  run 0 tls_client 127.0.0.1 "$port" ca.pem client.pem client.key a b
  run 1 tls_client 127.0.0.1 "$port" ca.pem other.pem other.key a b
}

test_examples() {
  start_broker
  mkfifo "$tmp/enter" && exec 8<>"$tmp/enter"
  subscribe 127.0.0.1 "$port" 'a/#' <&8 >"$tmp/out" 2>"$tmp/err" &
  logged 'Sending SUBACK to smallest-subscriber'
  run 1 publish 127.0.0.1 1 a/b hello
  publish 127.0.0.1 "$port" a/b hello && await grep -qx 'a/b: hello' "$tmp/out"
  echo >&8 && ends 0 $! && logged 'Received DISCONNECT from smallest-subscriber'
}

# What it has accepted arrives although the broker goes away and comes back: far more than its queue holds.
test_supervisor() {
  mkdir "$tmp/db" && start_broker "persistence true" "persistence_location $tmp/db/" "max_queued_messages 0"
  zebmqtt sub "${host[@]}" -c -i keeper -q 1 -t s/reading --retry 100 >"$tmp/readings" 2>"$tmp/err" &
  logged 'Sending SUBACK to keeper'
  mkfifo "$tmp/feed"
  supervisor 127.0.0.1 "$port" s <"$tmp/feed" >"$tmp/out" &
  supervisor=$! && exec 9>"$tmp/feed"
  for round in 1 2 3; do
    seq -f "$round-%g" 6000 >&9 # enough to be in the middle of it when the broker goes
    await grep -qx "$round-9" "$tmp/readings" && stop_broker
    seq -f "$round-%g" 6001 6100 >&9
    start_broker "${settings[@]}" && logged 'Sending SUBACK to supervisor-s'
    pub -t s/command -q 1 -m "go $round" && await grep -qx "command: go $round" "$tmp/out"
  done
  exec 9>&- && ends 0 "$supervisor" && await eval '(($(sort -u "$tmp/readings" | wc -l) == 18300))'
}

declare -F "test_$1" >/dev/null || fault "no such group: $1"
"test_$1"
