#!/usr/bin/env bash
# Installs what is missing, builds and runs every test.
#   scripts/test.sh                 full build (engine, windows, command line) and tests
#   scripts/test.sh --no-gui        engine and command line only
#   scripts/test.sh --sanitize=address|thread
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
gui=ON
sanitize=""
for arg in "$@"; do
  case "$arg" in
    --no-gui) gui=OFF ;;
    --sanitize=*) sanitize="${arg#--sanitize=}" ;;
    *) echo "usage: $0 [--no-gui] [--sanitize=address|thread]" >&2; exit 2 ;;
  esac
done

"$root/scripts/install-deps.sh"

build="$root/build"
[ "$gui" = OFF ] && build="$build-nogui"
[ -n "$sanitize" ] && build="$build-$sanitize"

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTWINFOLD_BUILD_GUI="$gui" -DTWINFOLD_WERROR=ON -DTWINFOLD_SANITIZE="$sanitize"
cmake --build "$build" --parallel "$(nproc)"
ctest --test-dir "$build" --output-on-failure --parallel "$(nproc)" --timeout 900
