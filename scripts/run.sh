#!/usr/bin/env bash
# Installs what is missing, builds and starts Twinfold. Until the main window lands this
# starts the command line front end; arguments go to it (default: --help).
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/install-deps.sh"
cmake -S "$root" -B "$root/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$root/build" --parallel "$(nproc)"
if [ $# -eq 0 ]; then
  set -- --help
fi
exec "$root/build/cli/twinfold-cli" "$@"
