#!/usr/bin/env bash
# shellcheck disable=SC2317,SC2016 # check() calls the checks; the Perl and Python stay literal
# Usage: scripts/interop.sh: proves kvctl's monitoring forms with the tools that read them.
# Installs what it needs (scripts/setup.sh interop: the monitoring-plugin libraries, and
# promtool and node_exporter unpacked from their packages, never installed), builds kvctl and
# kvdsim, then, in private mount, pid and network namespaces (loopback only) with kvdsim on a
# temporary socket:
#   promtool   `promtool check metrics` accepts `kvctl metrics` for every state the simulated
#              daemon plays, and complains about the same output with a name broken
#   textfile   node_exporter's textfile collector reads what `kvctl metrics --textfile`
#              wrote: no scrape error, the same kavelo_ samples, daemon up, down and hung
#   check      every `kvctl check` line's performance data parses with
#              Monitoring::Plugin::Performance, and its state is the one that
#              Monitoring::Plugin::Threshold and nagiosplugin.Range give for its value
# One line a phase, then a summary (checks run, each tool's version); the whole output goes to
# build/interop.log. Exits non-zero on any failure. Every process it starts dies with it.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
kv_name='interop'
# shellcheck source=scripts/common.sh
source "$top/scripts/common.sh"
kv_flavour plain
tools=$top/build-interop/tools/usr/bin
kvctl=$kv_dir/tools/kvctl/kvctl
kvdsim=$kv_dir/tools/kvdsim/kvdsim
py=/usr/bin/python3  # Debian's, which has python3-nagiosplugin

# ---- inside the namespaces ----------------------------------------------------------------

passed=0 failed=0 dpid='' work=''

log() { printf '%s\n' "$*" >>"$kv_log"; }

# check NAME COMMAND...: one check; its output goes to the log, a failure is also shown.
check() {
  local name=$1
  shift
  log "== $name"
  if "$@" >>"$kv_log" 2>&1; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    echo "$kv_name: FAILED: $name (details in $kv_log)"
  fi
}

# daemon ARGS...: kvdsim on $work/sock with ARGS, listening within five seconds.
daemon() {
  stop_daemon
  rm -f "$work/ready"
  "$kvdsim" --socket "$work/sock" --ready-file "$work/ready" "$@" >>"$kv_log" 2>&1 &
  dpid=$!
  for _ in $(seq 100); do
    [ -e "$work/ready" ] && return 0
    sleep 0.05
  done
  echo "$kv_name: kvdsim did not listen within 5 s" >&2
  exit 1
}

stop_daemon() {
  [ -n "$dpid" ] || return 0
  kill "$dpid" 2>/dev/null || true
  for _ in $(seq 50); do
    kill -0 "$dpid" 2>/dev/null || break
    sleep 0.1
  done
  kill -KILL "$dpid" 2>/dev/null || true
  wait "$dpid" 2>/dev/null || true
  dpid=''
}

# kv ARGS...: kvctl on the temporary socket, bounded; its status in $rc, output in $work/out.
kv() {
  rc=0
  timeout 30 "$kvctl" -s "$work/sock" "$@" >"$work/out" 2>"$work/err" || rc=$?
  log "kvctl $* -> $rc"
  cat "$work/out" "$work/err" >>"$kv_log"
}

# A label text with every kind of byte that needs care: backslash, double quote, line feed,
# non-ASCII, controls; and what kvctl makes of it (controls become '?').
odd=$'back\\slash "quoted"\nline two \xc3\xa9 \x01\x7f end'
odd_shown=$'back\\slash "quoted"\nline two \xc3\xa9 ?? end'

# promtool: silent acceptance for every state; a complaint for a broken name.
promtool_phase() {
  local name words
  declare -A args=(
    [up]=''
    [collector stopped]='--collector-status stopped --collector-detail 0,stopped,kvdsim,no,local,'
    [numbers as text]='--db-size 42MB --despool-rate n/a --online no'
  )
  for name in up 'collector stopped' 'numbers as text' 'odd label text' down; do
    case "$name" in
      down) stop_daemon ;;
      'odd label text') daemon --collector-status "$odd" --collector-detail "9,$odd,$odd,no,$odd,$odd" ;;
      *) read -ra words <<<"${args[$name]}" && daemon "${words[@]}" ;;
    esac
    kv -t 10 metrics
    cp "$work/out" "$work/metrics.$name"
    check "metrics, $name: exit status" [ "$rc" -eq "$([ "$name" = down ] && echo 1 || echo 0)" ]
    check "promtool accepts the metrics, $name" promtool_silent "$work/out"
  done
  # The same output with a name broken must be refused, or the checks above prove nothing.
  check "promtool complains about a unit suffix _ms" promtool_complains \
    "s/kavelo_ping_round_trip_seconds/kavelo_ping_round_trip_ms/" "abbreviated units"
  check "promtool complains about a counter without _total" promtool_complains \
    "s/^# TYPE kavelo_up gauge/# TYPE kavelo_up counter/" '"_total" suffix'
}

promtool_silent() {
  local said
  said=$("$tools/promtool" check metrics <"$1" 2>&1) && [ -z "$said" ]
}

promtool_complains() {
  local said
  if said=$(sed "$1" "$work/metrics.up" | "$tools/promtool" check metrics 2>&1); then
    echo "accepted: $said"
    return 1
  fi
  echo "$said"
  grep -qF -- "$2" <<<"$said"
}

# The kavelo_ samples as "name [labels] value" lines, labels decoded and sorted,
# values as numbers; with a label name, also that label's decoded values.
samples() {
  "$py" - "$@" <<'EOF'
import re, sys
label = re.compile(r'([a-zA-Z_][a-zA-Z0-9_]*)="((?:[^"\\]|\\.)*)"')
unescape = lambda v: re.sub(r'\\(.)', lambda m: {'n': '\n'}.get(m.group(1), m.group(1)), v)
text = open(sys.argv[1], encoding='utf-8').read()
for line in text.split('\n'):
    m = re.match(r'^(kavelo_[a-zA-Z0-9_]*)(?:\{(.*)\})? (\S+)$', line)
    if m:
        labels = sorted((k, unescape(v)) for k, v in label.findall(m.group(2) or ''))
        print(m.group(1), repr(labels), float(m.group(3)))
        if len(sys.argv) > 2 and labels:
            open(sys.argv[2], 'w', encoding='utf-8').write(dict(labels)['status'])
EOF
}

# node_exporter on 127.0.0.1 with its textfile collector on the directory kvctl writes.
textfile_phase() {
  local dir=$work/textfile url=http://127.0.0.1:9100/metrics state ne
  mkdir -p "$dir"
  "$tools/prometheus-node-exporter" --collector.disable-defaults --collector.textfile \
    --collector.textfile.directory="$dir" --web.listen-address=127.0.0.1:9100 >>"$kv_log" 2>&1 &
  ne=$!
  for _ in $(seq 100); do
    curl -sf --max-time 2 -o /dev/null "$url" && break
    sleep 0.1
  done
  # up, down, and hung (no answer to the ping; the time-out commits kavelo_up 0 to the file).
  local want_rc=(0 1 2) want_up=(1 0 0) i=0
  for state in up down hung; do
    case $state in
      up) daemon --collector-status "$odd" ;;
      down) stop_daemon ;;
      hung) daemon --fault silent-request ;;
    esac
    kv -t "$([ $state = hung ] && echo 1 || echo 10)" metrics --textfile "$dir/kavelo.prom"
    check "textfile, daemon $state: exit status ${want_rc[i]} and nothing on standard output" \
      [ "$rc" -eq "${want_rc[i]}" -a ! -s "$work/out" ]
    check "textfile, daemon $state: only the file, mode 644" \
      [ "$(ls -A "$dir")" = kavelo.prom -a "$(stat -c %a "$dir/kavelo.prom")" = 644 ]
    check "textfile, daemon $state: scraped" curl -sSf --max-time 5 -o "$work/scrape" "$url"
    check "textfile, daemon $state: node_textfile_scrape_error 0" \
      grep -qx 'node_textfile_scrape_error 0' "$work/scrape"
    samples "$dir/kavelo.prom" "$work/status.file" | sort >"$work/want"
    samples "$work/scrape" "$work/status.scraped" | sort >"$work/got"
    check "textfile, daemon $state: the scrape has the file's kavelo_ samples" \
      diff "$work/want" "$work/got"
    check "textfile, daemon $state: kavelo_up ${want_up[i]}" \
      grep -qx "kavelo_up \[\] ${want_up[i]}.0" "$work/got"
    i=$((i + 1))
  done
  printf '%s' "$odd_shown" >"$work/status.want"
  check "textfile: the odd collector status, decoded from the scrape" \
    cmp "$work/status.want" "$work/status.scraped"
  kill "$ne"
  wait "$ne" 2>/dev/null || true
}

# kvctl check against the libraries: a table of (warning, critical) pairs, each on a fast and
# on a slow daemon (kvdsim sends its replies a byte every 5 ms: a round trip of some 40 ms),
# so that every range form meets values on both of its sides. The value is not chosen, it is
# measured: the libraries judge the value that kvctl printed, which is the one kvctl judged.
ranges=(
  ':' '0.01:' '~:0.01' '0.01:1' '@0.01:1' '@~:0.01' '0.01' '@0.01' '1:' '~:' '0:0.001'
  '@0.001:0.02' '.5' '0.02:0.5' '@0:0.02' '~:1'
)
check_phase() {
  local speed i w c
  : >"$work/checks"
  for speed in fast slow; do
    if [ $speed = fast ]; then daemon; else daemon --piece 1 --piece-delay 5; fi
    for ((i = 0; i < ${#ranges[@]}; i++)); do
      w=${ranges[i]} c=${ranges[(i + 5) % ${#ranges[@]}]}
      [ "$w" != : ] || w=''
      [ "$c" != : ] || c=''
      kv -t 10 check ${w:+-w "$w"} ${c:+-c "$c"}
      printf '%s\t%s\t%s\t%s\n' "$w" "$c" "$rc" "$(cat "$work/out")" >>"$work/checks"
      check "check -w '$w' -c '$c' ($speed): one line" [ "$(wc -l <"$work/out")" -eq 1 ]
    done
  done
  daemon --collector-status stopped
  kv check -w 5 -c 10
  printf '%s\t%s\t%s\t%s\n' 5 10 "$rc" "$(cat "$work/out")" >>"$work/checks"
  check "check: a stopped collector is WARNING" grep -q '^KAVELO WARNING - .*collector not running: stopped | ' "$work/out"
  stop_daemon
  kv check
  check "check: not reachable is CRITICAL (2)" [ "$rc" -eq 2 -a "$(cut -c1-18 "$work/out")" = "KAVELO CRITICAL - " ]
  check "check: every line's state and performance data as the libraries read them" \
    perl -e "$judge_perl" "$work/checks"
  check "check: the same states from nagiosplugin.Range" "$py" -c "$judge_python" "$work/checks"
}

# Each line: warning, critical, exit status, output. The perfdata must parse to one 'rtt' in
# seconds with min 0 and the printed value, and the warning and critical must read back as
# given ('@' ranges, which that grammar lacks, as empty fields); the state is Monitoring::Plugin::Threshold's for that value, and the exit status matches the
# word. Lines without performance data (no daemon) are left to the checks above.
judge_perl='
use strict; use warnings;
use Monitoring::Plugin::Performance; use Monitoring::Plugin::Threshold;
my @words = qw(OK WARNING CRITICAL UNKNOWN); my ($n, $bad) = (0, 0);
while (my $line = <>) {
  chomp $line; my ($w, $c, $rc, $out) = split /\t/, $line, 4;
  my ($text, $perf) = $out =~ /^KAVELO (\w+) - [^|]*(?: \| (.*))?$/ ? ($1, $2) : ("", undef);
  next unless defined $perf;
  $n++;
  my @p = Monitoring::Plugin::Performance->parse_perfstring($perf);
  my $field = sub { $_[0] =~ /^@/ ? "" : $_[0] };
  my ($value) = $perf =~ /=([0-9.]+)s;/;
  my $ok = @p == 1 && $p[0]->label eq "rtt" && $p[0]->uom eq "s" && $p[0]->min == 0
    && defined $value && $p[0]->value == $value
    && ($p[0]->warning // "") eq $field->($w) && ($p[0]->critical // "") eq $field->($c);
  my %t; $t{warning} = $w if $w ne ""; $t{critical} = $c if $c ne "";
  my $want = Monitoring::Plugin::Threshold->set_thresholds(%t)->get_status($value // -1);
  $want = 1 if $want == 0 && $out =~ /collector not running/;
  if (!$ok || $words[$rc] ne $text || $rc != $want) {
    $bad++; print "MISMATCH (library: $words[$want]): $line\n";
  }
}
print "$n lines judged, $bad mismatched\n"; exit($bad || $n < 30 ? 1 : 0);
'
judge_python='
import re, sys, nagiosplugin
n = bad = 0
for line in open(sys.argv[1], encoding="utf-8"):
    w, c, rc, out = line.rstrip("\n").split("\t", 3)
    m = re.match(r"^KAVELO \w+ - [^|]* \| .rtt.=([0-9.]+)s;", out)
    if not m:
        continue
    value, n = float(m.group(1)), n + 1
    want = 2 if c and not nagiosplugin.Range(c).match(value) else 1 if w and not nagiosplugin.Range(w).match(value) else 0
    if want == 0 and "collector not running" in out:
        want = 1
    if want != int(rc):
        bad += 1
        print("MISMATCH (nagiosplugin: %d): %s" % (want, line.rstrip()))
print("%d lines judged, %d mismatched" % (n, bad))
sys.exit(1 if bad or n < 30 else 0)
'

inside() {
  ip link set lo up
  work=$(mktemp -d /tmp/kvinterop.XXXXXX)
  trap 'stop_daemon; rm -rf "$work"' EXIT
  local t0=$SECONDS before
  before=$passed
  promtool_phase
  echo "$kv_name: promtool: $((passed - before)) passed ($(kv_elapsed "$t0"))"
  t0=$SECONDS before=$passed
  textfile_phase
  echo "$kv_name: node_exporter textfile: $((passed - before)) passed ($(kv_elapsed "$t0"))"
  t0=$SECONDS before=$passed
  check_phase
  echo "$kv_name: monitoring-plugin check: $((passed - before)) passed ($(kv_elapsed "$t0"))"
  echo "$kv_name: $passed passed, $failed failed"
  [ "$failed" -eq 0 ]
}

if [ "${1:-}" = --inside ]; then
  kv_log=$2 kv_started=$3
  inside
  exit
fi

# ---- on the host ---------------------------------------------------------------------------

kv_as_root "$0" "$@"
kv_check_namespaces
kv_start_log "$kv_dir/interop.log"
kv_install interop
kv_configure
kv_build kvctl kvdsim
# unshare --kill-child and setpriv --pdeathsig: the namespace's processes die with this script.
rc=0
setpriv --pdeathsig KILL unshare -m -p -n -f --kill-child --mount-proc --propagation private \
  bash "$0" --inside "$kv_log" "$kv_started" || rc=$?
echo "$kv_name: versions: $("$tools/promtool" --version 2>&1 | head -1 | cut -d' ' -f1-3)," \
  "$("$tools/prometheus-node-exporter" --version 2>&1 | head -1 | cut -d' ' -f1-3)," \
  "Monitoring::Plugin $(perl -MMonitoring::Plugin -e 'print $Monitoring::Plugin::VERSION')," \
  "nagiosplugin $(dpkg-query -W -f='${Version}' python3-nagiosplugin)"
echo "$kv_name: $(kv_elapsed) in all; full log: $kv_log"
exit "$rc"
