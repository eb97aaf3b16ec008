#!/usr/bin/env bash
# Checks the include order of src/ against the rules written in src/README.md, so the text
# and the check cannot drift apart. Usage: check_include_order.sh [REPOSITORY_ROOT]
#
# src/README.md gives the floors, lowest first, on one line that starts "Floor order:"
# (each floor in backquotes), and the doors as table rows "| `floor/header.h` | `floor` | why |":
# a door is one header of a higher floor that floors from the named one upwards may include.
# The rules:
#   - every file under src/ (other than src/README.md) lies in a floor's folder, and every
#     floor's folder has a README.md;
#   - a file includes headers of its own floor or lower ones, or a door open to its floor;
#   - a door itself includes nothing higher than the floor it opens to (other doors open
#     that low included), so nothing higher comes in through it.
# Prints one line per breach and exits 1 if there is any.
set -uo pipefail

root=${1:-$(cd "$(dirname "$0")/../.." && pwd)}
readme=$root/src/README.md
[ -f "$readme" ] || { echo "no $readme"; exit 1; }

declare -A rank door
floor_line=$(grep -m1 '^Floor order:' "$readme")
[ -n "$floor_line" ] || { echo "src/README.md has no line starting 'Floor order:'"; exit 1; }
floors=($(grep -o '`[a-z_]*`' <<<"$floor_line" | tr -d '`'))
[ ${#floors[@]} -ge 2 ] || { echo "the floor order names fewer than two floors"; exit 1; }
for i in "${!floors[@]}"; do rank[${floors[$i]}]=$i; done

while read -r header opens; do
  [ -n "${rank[$opens]+x}" ] || { echo "door $header opens to $opens, which is no floor"; exit 1; }
  door[$header]=$opens
done < <(sed -n 's/^| `\([a-z_]*\/[a-z_0-9]*\.h\)` | `\([a-z_]*\)` |.*/\1 \2/p' "$readme")

breaches=0
breach() { echo "$1"; breaches=$((breaches + 1)); }

cd "$root/src" || exit 1
for header in "${!door[@]}"; do
  [ -f "$header" ] || breach "door $header does not exist"
done
for floor in "${floors[@]}"; do
  [ ! -d "$floor" ] || [ -f "$floor/README.md" ] || breach "$floor/ has no README.md"
done

while IFS= read -r -d '' file; do
  file=${file#./}
  [ "$file" = README.md ] && continue
  own=${file%%/*}
  if [ "$own" = "$file" ] || [ -z "${rank[$own]+x}" ]; then
    breach "src/$file lies on no floor"
    continue
  fi
  # The highest floor this file may reach: its own, or for a door the floor it opens to.
  limit=${rank[$own]}
  if [ -n "${door[$file]+x}" ] && [ "${rank[${door[$file]}]}" -lt "$limit" ]; then limit=${rank[${door[$file]}]}; fi
  while IFS= read -r target; do
    to=${target%%/*}
    [ "$to" = "$target" ] && continue             # a public or system header
    [ -n "${rank[$to]+x}" ] || { breach "src/$file includes $target, on no floor"; continue; }
    [ "${rank[$to]}" -le "$limit" ] && continue
    if [ -n "${door[$target]+x}" ] && [ "${rank[${door[$target]}]}" -le "$limit" ]; then continue; fi
    if [ -n "${door[$file]+x}" ]; then
      breach "src/$file is a door open to ${door[$file]} but includes $target from higher up"
    else
      breach "src/$file includes $target: $to is above $own and $target is no door open to $own"
    fi
  done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
done < <(find . -type f -print0)

[ "$breaches" -eq 0 ] && exit 0
echo "$breaches breach(es) of the include order in src/README.md"
exit 1
