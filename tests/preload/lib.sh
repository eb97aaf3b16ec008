# Shared set-up of the preload tests: where the library and the build are.
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
QUORLA_BUILD_DIR="${QUORLA_BUILD_DIR:-$root/build}"
QUORLA_LIBRARY="${QUORLA_LIBRARY:-$QUORLA_BUILD_DIR/libquorlamalloc.so}"
[ -f "$QUORLA_LIBRARY" ] || { echo "no library at $QUORLA_LIBRARY"; exit 1; }
fail() { echo "FAIL: $*"; exit 1; }
pass() { echo "ok: $*"; }
