#!/usr/bin/env bash
# Fails when a folder of src/ includes a folder above it or beside it:
#   base < config < nlu, services < engine
# and when the public headers include anything of src/.
set -euo pipefail
cd "$(dirname "$0")/.."
rank() { case "$1" in base) echo 1 ;; config) echo 2 ;; nlu | services) echo 3 ;; engine) echo 4 ;; *) echo 0 ;; esac; }
bad=0
for file in src/*/*.h src/*/*.cc include/rulenlu/*.h; do
  from=$(echo "$file" | cut -d/ -f2)
  [ "$from" = rulenlu ] && from_rank=0 || from_rank=$(rank "$from")
  while IFS= read -r folder; do
    to_rank=$(rank "$folder")
    [ "$to_rank" -gt 0 ] || continue
    if [ "$from" = rulenlu ] || [ "$to_rank" -gt "$from_rank" ] ||
       { [ "$to_rank" -eq "$from_rank" ] && [ "$folder" != "$from" ]; }; then
      echo "$file includes $folder/: a layer may include only the layers below it" >&2
      bad=1
    fi
  done < <(sed -n 's/^#include "\([a-z_]*\)\/.*/\1/p' "$file" | sort -u)
done
exit "$bad"
