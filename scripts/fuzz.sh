#!/bin/bash
# Builds the fuzz targets and runs them: scripts/fuzz.sh [--long] [TARGET ...]
# Without --long for about a minute, in a way that is the same each time; with it for an hour or so, ten million calls
# of the random walk included. What was found of new inputs stays in build/fuzz-corpus for the next run. An input that
# breaks something is left in build/fuzz-findings; give its file to build/linux-fuzz/bin/TARGET to see it again.
set -euo pipefail
cd "$(dirname "$0")/.."

long=
if [[ ${1-} == --long ]]; then
  long=1
  shift
fi
targets=("$@")
[[ $# -gt 0 ]] || targets=(cryptoki_walk token_file_fuzz ca_file_fuzz)

# Inputs of a short run, of a long one, and the longest input.
declare -A limits=(
  [cryptoki_walk]='3000 120000 1500'
  [token_file_fuzz]='20000 5000000 20000'
  [ca_file_fuzz]='20000 5000000 8000'
)

cmake --preset linux-fuzz >/dev/null
cmake --build --preset linux-fuzz --parallel "$(nproc)" >/dev/null
mkdir -p build/fuzz-findings
for target in "${targets[@]}"; do
  read -r few many longest <<<"${limits[$target]}"
  found=build/fuzz-corpus/$target
  log=build/fuzz-findings/$target.log
  options=(-len_control=0 -max_len="$longest" -artifact_prefix="build/fuzz-findings/$target-" -runs="$many")
  if [[ -z $long ]]; then
    options+=(-runs="$few" -seed=1)
    found=build/fuzz-corpus/none
    rm -rf "$found"
  fi
  mkdir -p "$found"
  if ! build/linux-fuzz/bin/"$target" "${options[@]}" "$found" "fuzz/corpus/${target%_fuzz}" >"$log" 2>&1; then
    grep -vE 'NEW|REDUCE|pulse|RELOAD' "$log" | tail -n 60
    echo "fuzz: $target found something; the whole output is in $log" >&2
    exit 1
  fi
  echo "$target: $(grep -E '^Done|calls' "$log" | paste -sd ';' | sed 's/;/; /')"
done
