# shellcheck shell=bash
# What ./run and ./test share: packages, quiet steps with a log, the build. To be sourced by bash from the root of the tree.

logs=build/log
jobs=$(nproc)

say() { printf '%s\n' "$*" >&2; }
die() {
  say "$0: $*"
  exit 1
}

# The packages of the arguments that Debian's package manager does not have installed.
missing_packages() {
  local package
  for package in "$@"; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || printf '%s\n' "$package"
  done
}

# Installs what is missing of the arguments, or says what to do about it and ends the script.
need_packages() {
  local tool missing as_root=()
  for tool in dpkg-query apt-get; do
    command -v "$tool" >/dev/null || die "this is no Debian machine; install by hand what Debian calls: $*"
  done
  missing=$(missing_packages "$@")
  [ -n "$missing" ] || return 0
  missing=${missing//$'\n'/ }
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || die "not root and no sudo; as root: apt-get install $missing"
    sudo -v || die "sudo refused; as root: apt-get install $missing"
    as_root=(sudo)
  fi
  # shellcheck disable=SC2086 # one word per package is what is meant
  quietly install "installing $missing" install_packages $missing ||
    die "apt-get could not install them; as root: apt-get install $missing"
}

install_packages() {
  "${as_root[@]}" apt-get update -q &&
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends "$@"
}

# The command that quietly() runs now, the leader of a process group of its own.
worker=''

# A script that is told to end takes the command that it runs along.
end_worker() { [ -z "$worker" ] || kill -TERM -- "-$worker" 2>/dev/null; }
trap 'end_worker; exit 130' INT TERM HUP

# quietly NAME LABEL COMMAND...: runs a command with its output in build/log/NAME.log. A terminal is shown what goes on;
# a command that fails has the end of its log shown.
quietly() {
  local log=$logs/$1.log label=$2 began=$SECONDS status
  shift 2
  mkdir -p "$logs"
  set -m
  "$@" >"$log" 2>&1 </dev/null &
  worker=$!
  set +m
  if [ -t 2 ]; then
    while kill -0 "$worker" 2>/dev/null; do
      printf '\r\033[K%s (%d s) %s' "$label" $((SECONDS - began)) "$(last_step "$log")" >&2
      sleep 0.3
    done
    printf '\r\033[K' >&2
  fi
  wait "$worker"
  status=$?
  worker=''
  if [ "$status" -ne 0 ]; then
    say "$label failed; the end of $log:"
    tail -n 40 "$log" | sed 's/^/    /' >&2
  fi
  return "$status"
}

# The step counter that a build printed last, such as [12/80].
last_step() { tail -c 4096 "$1" | tr '\r' '\n' | sed -n 's/^\(\[[0-9]*\/[0-9]*\]\).*/\1/p' | tail -n 1; }

# What one tree has compiled serves every other one, wherever it lies; also what reads the precompiled header of the tests.
export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1 CCACHE_SLOPPINESS=pch_defines,time_macros

# build_tree DIRECTORY [CMAKE-OPTION...]: configures and builds.
build_tree() {
  local directory=$1
  shift
  if command -v ccache >/dev/null; then set -- -DCMAKE_CXX_COMPILER_LAUNCHER=ccache "$@"; fi
  cmake -G Ninja -S . -B "$directory" "$@" && ninja -C "$directory" -j "$jobs"
}

# Makes the web tree in build/web. The packages that it needs are the ones that the lock file names, fetched when that changed.
build_web() {
  if ! cmp -s web/package-lock.json web/node_modules/lock; then
    npm --prefix web ci --ignore-scripts --no-audit --no-fund && cp web/package-lock.json web/node_modules/lock || return 1
  fi
  node web/build.mjs build/web
}

# The packages that this needs; npm may be here without Debian's knowing.
web_packages() { command -v npm >/dev/null || printf 'nodejs npm'; }
