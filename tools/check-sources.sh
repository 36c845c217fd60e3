#!/usr/bin/env bash
# Raw OS calls live in src/platform/ only: every other part of src/ goes
# through the platform seam, so one file per OS holds all of them.
set -euo pipefail
cd "$(dirname "$0")/.."
pattern='(^|[^_[:alnum:]:.>])(fopen|fopen_s|access|_access|mkdir|_mkdir|stat|_stat64|lstat|readlink|usleep|nanosleep|sleep|Sleep|select|unlink|remove|rename|open|write|OutputDebugStringA|GetModuleFileNameA)[[:space:]]*\('
hits=$(grep -rnE "$pattern" src --include='*.cpp' --include='*.h' |
       grep -v '^src/platform/' | grep -vE '^[^:]+:[0-9]+:[[:space:]]*//' || true)
if [ -n "$hits" ]; then
  echo "raw OS calls outside src/platform/:"
  echo "$hits"
  exit 1
fi
echo "source checks: ok"
