# Shared by ./demo, ./test and .ci/run: messages, logs, locks and stamps, and the set-up steps. Sourced, never run.
# shellcheck shell=bash

root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
build_root=$root/build
log_dir=$build_root/logs

say() { printf '%s\n' "$*"; }

# One plain sentence on what is wrong and what to do about it.
fail() {
  printf '\n%s\n' "$*" >&2
  exit 1
}

# run_logged NAME WHAT COMMAND...: says WHAT, runs COMMAND with its output in a log file of that name, and on
# failure prints the log's last lines and where the rest stands.
run_logged() {
  local name=$1 what=$2 log=$log_dir/$1.log started=$SECONDS
  shift 2
  mkdir -p "$log_dir"
  printf '%s ... ' "$what"
  if "$@" >"$log" 2>&1 </dev/null; then
    printf 'done (%d s)\n' $((SECONDS - started))
    return 0
  fi
  printf 'failed (%d s)\n\n' $((SECONDS - started))
  tail -n 25 "$log"
  printf '\nThe step "%s" failed; the whole log is in %s\n' "$what" "$log"
  return 1
}

# with_lock NAME COMMAND...: one holder of NAME at a time, so that two runs side by side do not build the same
# folder. The kernel drops the lock when its holder dies, so an interrupted run leaves none behind.
with_lock() {
  local lock=$build_root/.lock-$1
  shift
  mkdir -p "$build_root"
  (
    if ! flock -n 9; then
      say "Another run is setting up the same folder; waiting for it."
      flock 9
    fi
    "$@"
  ) 9>"$lock"
}

# A stamp holds a hash of what a finished step depended on; the step is due when the hash differs. It is written
# last, so that a step cut short counts as not done.
hash_of() { printf '%s\n' "$@" | sha256sum | cut -c 1-16; }
stamp_is() { [ -f "$1" ] && [ "$(<"$1")" = "$2" ]; }
stamp() { printf '%s\n' "$2" >"$1.tmp$$" && mv -f "$1.tmp$$" "$1"; }

# first_running NAME [ARGUMENT...]: the first NAME on the path that really runs. A version manager's shim can
# exist and still fail, with the system's own program behind it.
first_running() {
  local name=$1 candidate
  shift
  while IFS= read -r candidate; do
    if "$candidate" "${@:---version}" >/dev/null 2>&1 </dev/null; then
      printf '%s\n' "$candidate"
      return 0
    fi
  done < <(type -ap "$name" | awk '!seen[$0]++')
  return 1
}

# shellcheck source=setup/system.sh
. "$root/setup/system.sh"
# shellcheck source=setup/python.sh
. "$root/setup/python.sh"
# shellcheck source=setup/build.sh
. "$root/setup/build.sh"
