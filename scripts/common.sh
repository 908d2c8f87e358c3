# shellcheck shell=bash disable=SC2154
# Sourced by the scripts in scripts/: build flavours, root through sudo, the namespace check,
# and quiet phases that show one progress line each and keep their whole output in a log file.
# Callers set `top` (the source tree) and `kv_name` (the word that starts every line) first.

# The progress readers at the end of a pipeline keep what they counted.
shopt -s lastpipe

# kv_flavour FLAVOUR: sets kv_dir (build directory) and kv_args (CMake arguments).
kv_flavour() {
  case "$1" in
    plain)   kv_dir=$top/build;         kv_args=() ;;
    asan)    kv_dir=$top/build-asan;    kv_args=(-DKV_SANITIZE=address) ;;
    tsan)    kv_dir=$top/build-tsan;    kv_args=(-DKV_SANITIZE=thread) ;;
    coverage) kv_dir=$top/build-coverage; kv_args=(-DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS=--coverage
                                                 -DCMAKE_EXE_LINKER_FLAGS=--coverage) ;;
    release) kv_dir=$top/build-release; kv_args=(-DCMAKE_BUILD_TYPE=Release -DKV_BUILD_TESTS=OFF -DKV_BUILD_BENCH=ON) ;;
    # Only the two programs, no test framework; lightly optimised and without debug information,
    # which compiles in half the time of the default -O2 -g.
    demo)    kv_dir=$top/build-demo;    kv_args=(-DKV_BUILD_TESTS=OFF -DCMAKE_BUILD_TYPE=Release
                                                 "-DCMAKE_CXX_FLAGS_RELEASE=-O1 -DNDEBUG") ;;
    *) echo "$kv_name: unknown flavour '$1' (plain, asan, tsan, coverage, release or demo)" >&2; exit 2 ;;
  esac
}

# kv_as_root SCRIPT [ARGS...]: from a user who is not root, runs SCRIPT again through sudo.
kv_as_root() {
  [ "$(id -u)" -eq 0 ] && return 0
  if command -v sudo >/dev/null 2>&1; then
    exec sudo -- bash "$@"
  fi
  echo "$kv_name: needs root (apt-get, private mount namespaces) and sudo is not installed: run it as root" >&2
  exit 1
}

# Every test (tests/support/main.cpp) and the demo (scripts/hermetic.sh) run in private mount
# namespaces: find out now, with the reason and its fix, rather than from the first case.
kv_check_namespaces() {
  local what fix err
  if ! command -v unshare >/dev/null 2>&1; then
    what="unshare is missing"; fix="apt-get install util-linux"
  elif [ ! -r /proc/self/mountinfo ]; then
    what="/proc is not mounted"; fix="mount -t proc proc /proc"
  elif err=$(unshare -m --propagation private true 2>&1); then
    return 0
  elif ! awk '$5 == "/" { found = 1 } END { exit !found }' /proc/self/mountinfo; then
    what="/ is not a mount point (a chroot?)"
    fix="on the host, 'mount --bind DIR DIR' before 'chroot DIR' (scripts/fresh-check.sh does)"
  else
    what="unshare -m: ${err##*: }"
    fix="run as root on the host, or in a container allowed to mount (CAP_SYS_ADMIN)"
  fi
  echo "$kv_name: cannot make private mount namespaces: $what; fix: $fix" >&2
  exit 1
}

# Some tests run the build's programs as user nobody (65534): every directory above the tree
# must let others through, which root's mode-700 home does not.
kv_check_reachable() {
  local d=$top
  setpriv --reuid=65534 --regid=65534 --clear-groups test -x "$top" 2>/dev/null && return 0
  while [ "$d" != / ] && [ $((0$(stat -c %a "$d") & 1)) -eq 1 ]; do d=$(dirname "$d"); done
  echo "$kv_name: the tests run programs as user nobody, who cannot enter $d (mode $(stat -c %a "$d")):" \
    "fix: move the tree out of it (for example to /srv), or chmod o+x $d" >&2
  exit 1
}

# kv_start_log FILE: every phase from here on appends its whole output to FILE.
kv_start_log() {
  kv_log=$1
  mkdir -p "$(dirname "$kv_log")"
  : >"$kv_log"
  kv_tty=0
  [ -t 1 ] && kv_tty=1
  kv_started=$SECONDS
}

# kv_show TEXT: the current phase's line; on a terminal it is rewritten in place, elsewhere
# only its final state is printed (kv_done).
kv_show() {
  kv_line="$kv_name: $1"
  [ "$kv_tty" = 1 ] && printf '\r\033[K%s' "$kv_line"
  return 0
}

kv_done() {
  [ $# -eq 0 ] || kv_show "$1"
  if [ "$kv_tty" = 1 ]; then printf '\r\033[K%s\n' "$kv_line"; else printf '%s\n' "$kv_line"; fi
}

# kv_fail WHAT: ends the current line, shows the end of the log and where the rest is.
kv_fail() {
  kv_done
  echo "$kv_name: $1; the log ends with:" >&2
  tail -n 15 "$kv_log" | cut -c1-160 | sed 's/^/  /' >&2
  echo "$kv_name: full log: $kv_log" >&2
  exit 1
}

kv_elapsed() {
  local s=$((SECONDS - ${1:-$kv_started}))
  if [ $s -ge 60 ]; then printf '%d min %02d s' $((s / 60)) $((s % 60)); else printf '%d s' $s; fi
}

# kv_install PROFILE: scripts/setup.sh PROFILE, showing apt's progress.
kv_install() {
  local line f pct size what="all packages present" t0=$SECONDS
  kv_show "installing: checking packages"
  # setup.sh says what it does on descriptor 3 ("kv:" lines) and has apt report its progress
  # there too (APT::Status-Fd: "dlstatus:ID:PERCENT:..." and "pmstatus:PACKAGE:PERCENT:...").
  if ! KV_SETUP_STATUS_FD=3 "$top/scripts/setup.sh" "$1" 3>&1 >>"$kv_log" 2>&1 |
      while IFS= read -r line; do
        IFS=: read -ra f <<<"$line"
        case "${f[0]}" in
          kv) what=${line#kv:}; kv_show "installing: $what" ;;
          dlstatus) kv_show "installing: $what: downloading ${f[2]%%.*}%" ;;
          pmstatus)
            # The package field may hold an architecture after a colon.
            pct=${f[2]}
            [[ $pct =~ ^[0-9.]+$ ]] || pct=${f[3]:-0}
            kv_show "installing: $what: unpacking and setting up ${pct%%.*}%"
            ;;
        esac
      done; then
    kv_fail "installing failed"
  fi
  # apt-get's own account of the download and the disk space, when it installed anything.
  size=$(sed -nE 's/^Need to get ([0-9.,]+ [kMG]?B)( of archives)?.*/\1 downloaded/p;
                  s/^After this operation, ([0-9.,]+ [kMG]?B) of additional disk.*/\1 on disk/p' \
           "$kv_log" | paste -sd, - | sed 's/,/, /g')
  kv_done "installing: $what (${size:+$size, }$(kv_elapsed "$t0"))"
}

# kv_configure: CMake for the flavour chosen with kv_flavour.
kv_configure() {
  local t0=$SECONDS
  kv_show "configuring $(basename "$kv_dir")"
  cmake -S "$top" -B "$kv_dir" -G Ninja "${kv_args[@]}" >>"$kv_log" 2>&1 || kv_fail "configuring failed"
  kv_done "configuring $(basename "$kv_dir") ($(kv_elapsed "$t0"))"
}

# kv_build [TARGET...]: builds the targets (all by default), counting Ninja's steps.
kv_build() {
  local line steps='' t0=$SECONDS
  kv_show "building"
  if ! cmake --build "$kv_dir" -j "$(nproc)" ${1:+--target "$@"} 2>&1 |
      while IFS= read -r line; do
        printf '%s\n' "$line" >>"$kv_log"
        if [[ $line =~ ^\[([0-9]+)/([0-9]+)\] ]]; then
          steps="${BASH_REMATCH[1]}/${BASH_REMATCH[2]}"
          kv_show "building ${1:+$* }$steps"
        elif [ "$line" = "ninja: no work to do." ]; then
          steps="up to date"
        fi
      done; then
    kv_fail "building failed"
  fi
  kv_done "building ${1:+$* }$steps ($(kv_elapsed "$t0"))"
}
