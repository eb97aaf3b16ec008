# Shared set-up of the preload tests: where the library and the build are.
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
QUORLA_BUILD_DIR="${QUORLA_BUILD_DIR:-$root/build}"
QUORLA_LIBRARY="${QUORLA_LIBRARY:-$QUORLA_BUILD_DIR/libquorlamalloc.so}"
[ -f "$QUORLA_LIBRARY" ] || { echo "no library at $QUORLA_LIBRARY"; exit 1; }
fail() { echo "FAIL: $*"; exit 1; }
pass() { echo "ok: $*"; }

# The library as the kernel names it in a process's memory map.
library_path="$(readlink -f "$QUORLA_LIBRARY")"

# A scratch directory removed when the script exits. Scripts that need more on exit
# set their own trap and call remove_scratch from it.
make_scratch() {
  scratch="$(mktemp -d "${TMPDIR:-/tmp}/quorla-preload.XXXXXX")"
  trap remove_scratch EXIT
}
remove_scratch() { [ -z "${scratch:-}" ] || rm -rf "$scratch"; }

# Checks that a memory map (text on stdin, read to the end so that no writer gets SIGPIPE)
# holds the library; $1 names the process.
expect_mapped() {
  local map
  map="$(cat)"
  grep -qF "$library_path" <<<"$map" || fail "$1: $library_path is not in its memory map"
  pass "$1 has the library mapped"
}

# Runs "$@" with the library preloaded, standard error kept in the scratch directory.
# On failure the error output is shown, and a death by signal is run again under gdb
# (standard input from /dev/null) to print every thread's backtrace.
preload_runs=0
preloaded() {
  preload_runs=$((preload_runs + 1))
  local err="$scratch/stderr.$preload_runs" status=0
  LD_PRELOAD="$QUORLA_LIBRARY" "$@" 2>"$err" || status=$?
  [ "$status" -eq 0 ] && return 0
  {
    echo "== '$*' under the library exited with status $status; its standard error:"
    tail -n 40 "$err"
    if [ "$status" -gt 128 ] && command -v gdb >/dev/null; then
      echo "== died by signal $((status - 128)); the same command under gdb:"
      timeout 300 gdb -q -batch -ex "set pagination off" \
        -ex "set exec-wrapper env LD_PRELOAD=$QUORLA_LIBRARY" -ex run \
        -ex "thread apply all bt 40" --args "$@" </dev/null 2>&1 | tail -n 150
    fi
  } >&2
  return "$status"
}

# Waits until process $1 blocks reading its standard input, which it does only after the
# dynamic loader has mapped every preloaded library, and prints its memory map.
map_when_reading_stdin() {
  local pid=$1 number fd rest
  for _ in $(seq 6000); do
    [ -r "/proc/$pid/syscall" ] || break
    read -r number fd rest <"/proc/$pid/syscall" 2>/dev/null || true
    if [ "$number" = 0 ] && [ "$fd" = 0x0 ]; then cat "/proc/$pid/maps"; return 0; fi
    sleep 0.01
  done
  echo "process $pid never blocked reading its standard input" >&2
  return 1
}

# Runs "$@" under the library with its standard input held open on a pipe until the process
# blocks reading it (by then its loader has mapped every library), writes its memory map to
# the file $1, then gives it the file $2 as input. Standard output and error are the caller's.
preloaded_with_held_input() {
  local map=$1 input=$2 status=0 pid
  shift 2
  rm -f "$scratch/held_input"
  mkfifo "$scratch/held_input"
  exec 3<>"$scratch/held_input"
  LD_PRELOAD="$QUORLA_LIBRARY" "$@" <"$scratch/held_input" 3>&- &
  pid=$!
  if ! map_when_reading_stdin "$pid" >"$map"; then
    exec 3>&-
    wait "$pid" || true
    return 1
  fi
  cat "$input" >&3
  exec 3>&-
  wait "$pid" || status=$?
  return "$status"
}
