#!/bin/bash
# Builds the fuzz targets and runs them: scripts/fuzz.sh [--long] [TARGET ...]
# Without --long it takes about a minute and does the same each time. With --long it takes an hour or more, with ten
# million calls of the random walk; new inputs are kept in build/fuzz-corpus for the next run. An input that makes a
# target fail is written to build/fuzz-findings; build/linux-asan/bin/TARGET FILE runs it again.
set -euo pipefail
cd "$(dirname "$0")/.."

long=
if [[ ${1-} == --long ]]; then
  long=1
  shift
fi
targets=("$@")
[[ $# -gt 0 ]] || targets=(cryptoki_walk standard_walk token_file_fuzz ca_file_fuzz)

# The number of inputs of a short run and of a long one, and the size of the longest input in bytes.
declare -A limits=(
  [cryptoki_walk]='3000 120000 1500'
  [standard_walk]='600 13000 1500'
  [token_file_fuzz]='20000 5000000 20000'
  [ca_file_fuzz]='20000 5000000 8000'
)

cmake --preset linux-fuzz >/dev/null
cmake --build --preset linux-fuzz --parallel "$(nproc)" >/dev/null
mkdir -p build/fuzz-findings

fuzz() { # TARGET
  local target=$1 few many longest found=build/fuzz-corpus/$1 log=build/fuzz-findings/$1.log
  read -r few many longest <<<"${limits[$target]}"
  local options=(-len_control=0 -max_len="$longest" -artifact_prefix="build/fuzz-findings/$target-" -runs="$many")
  if [[ -z $long ]]; then
    options+=(-runs="$few" -seed=1)
    found=build/fuzz-corpus/none-$target
    rm -rf "$found"
  fi
  mkdir -p "$found"
  corpus=fuzz/corpus/${target%_fuzz}
  [[ -d $corpus ]] || corpus=fuzz/corpus/cryptoki_walk # its inputs fit every walk: any bytes are a valid one
  if ! build/linux-asan/bin/"$target" "${options[@]}" "$found" "$corpus" >"$log" 2>&1; then
    grep -vE 'NEW|REDUCE|pulse|RELOAD' "$log" | tail -n 60
    echo "fuzz: $target found something; the whole output is in $log" >&2
    return 1
  fi
  echo "$target: $(grep -E '^Done|calls' "$log" | paste -sd ';' | sed 's/;/; /')"
}

running=()
for target in "${targets[@]}"; do
  fuzz "$target" &
  running+=($!)
done
failed=0
for process in "${running[@]}"; do wait "$process" || failed=1; done
exit $failed
