#!/usr/bin/env bash
# How many real faults the native suite catches: plants the faults of scripts/mutants.txt one
# at a time in a copy of the tree, rebuilds what each touches and runs the suite, stopping at
# the first failing test. Prints each fault's fate; exits 1 when a fault survived that the
# list does not account for.
#
# A line of the list: FILE | OLD | NEW | WHAT [| WHY IT CANNOT MATTER]
# OLD must occur exactly once in FILE; "\n" in OLD and NEW stands for a line break. A fault with
# a reason is expected to survive. Lines starting with # are comments.
#
# Usage: scripts/mutate.sh [NUMBER...]   (default: every fault of the list)
# PALIMBO_MUTATION_DIR holds the copy and its build (default /tmp/palimbo-mutation), kept between
# runs so that the next one rebuilds only what changed. PALIMBO_MUTATION_IN_PLACE=BUILD_DIR plants
# the faults in this tree itself and rebuilds that build folder instead, which saves the first
# build on a busy machine; each file is put back after its fault, also when the run is stopped.
set -euo pipefail
cd "$(dirname "$0")/.."
source=$PWD
list=$source/scripts/mutants.txt
work=${PALIMBO_MUTATION_DIR:-${TMPDIR:-/tmp}/palimbo-mutation}
tree=$work/tree
build=$work/build
in_place=${PALIMBO_MUTATION_IN_PLACE:-}
if [[ -n $in_place ]]; then
  tree=$source
  build=$(cd "$in_place" && pwd)
fi
started=$SECONDS

# Reads the list; "count", "what N", "why N", "path N", "check N" (the text is there once) and
# "plant N".
mutants() {
  python3 - "$list" "$tree" "$@" <<'EOF'
import sys
list_path, tree, action, *rest = sys.argv[1:]
rows = []
for number, line in enumerate(open(list_path, encoding="utf-8"), 1):
    line = line.rstrip("\n")
    if not line.strip() or line.lstrip().startswith("#"):
        continue
    fields = [f.strip() for f in line.split(" | ")]
    if len(fields) not in (4, 5):
        sys.exit(f"{list_path}:{number}: want FILE | OLD | NEW | WHAT [| WHY]")
    rows.append(fields + [""] * (5 - len(fields)))
if action == "count":
    print(len(rows))
    sys.exit()
path, old, new, what, why = rows[int(rest[0]) - 1]
if action == "what":
    print(what)
elif action == "path":
    print(path)
elif action == "why":
    print(why)
else:
    old, new = old.replace("\\n", "\n"), new.replace("\\n", "\n")
    text = open(f"{tree}/{path}", encoding="utf-8").read()
    if text.count(old) != 1:
        sys.exit(f"{path}: the text of '{what}' occurs {text.count(old)} times, not once")
    if action == "plant":
        open(f"{tree}/{path}", "w", encoding="utf-8").write(text.replace(old, new))
EOF
}

mkdir -p "$work" "$build"
if [[ -z $in_place ]]; then
  # A fresh copy of the sources; their times are kept, so the build stays incremental.
  rm -rf "$tree"
  mkdir -p "$tree"
  tar -C "$source" --exclude='./build*' --exclude=./.git -cf - . | tar -C "$tree" -xf -
  # The copy brings back the sources' own times, older than the objects built from a fault that
  # an earlier run planted last or was stopped in: those files are made new, to be rebuilt.
  [[ ! -s $build/palimbo-planted ]] || (cd "$tree" && sort -u "$build/palimbo-planted" | xargs -r touch)
fi

count=$(mutants count)
numbers=("$@")
((${#numbers[@]})) || mapfile -t numbers < <(seq 1 "$count")
# A stale line of the list fails here, before the long build.
for n in "${numbers[@]}"; do mutants check "$n"; done

if [[ -z $in_place ]]; then
  # Light optimisation and no debug information: the rebuilds dominate, not the tests.
  cmake -S "$tree" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -DPALIMBO_BENCH=OFF -DPALIMBO_TEST_TIMEOUT=60 >/dev/null
fi

suite() {
  # Without the costs of the last run, the tests start in the order of the tree, the quick
  # ones of the lower layers first.
  rm -f "$build/Testing/Temporary/CTestCostData.txt"
  ctest --test-dir "$build" -j2 --stop-on-failure >"$1" 2>&1
}

nice -n 5 cmake --build "$build" -j2 >"$work/build.log" 2>&1 || {
  tail -n 30 "$work/build.log" >&2
  echo "the tree does not build without faults" >&2
  exit 2
}
rm -f "$build/palimbo-planted"
suite "$work/clean.log" || {
  grep -E '\*\*\*|Failed' "$work/clean.log" >&2 || true
  echo "the suite fails without faults" >&2
  exit 2
}

killed=0 survived=0 accounted=0
planted=
# The planted file goes back however the run ends.
restore() { [[ -z $planted ]] || cp "$work/original" "$tree/$planted"; planted=; }
trap restore EXIT
trap 'exit 130' INT TERM
for n in "${numbers[@]}"; do
  what=$(mutants what "$n")
  why=$(mutants why "$n")
  file=$(mutants path "$n")
  cp "$tree/$file" "$work/original"
  planted=$file
  echo "$file" >>"$build/palimbo-planted"
  mutants plant "$n"
  t0=$SECONDS
  if ! nice -n 5 cmake --build "$build" -j2 >"$work/mutant-$n.log" 2>&1; then
    echo "mutant $n: killed by the build ($what)"
    killed=$((killed + 1))
  elif ! suite "$work/mutant-$n.log"; then
    by=$(grep -m1 -oE '[^ ]+ \.+(\*\*\*Failed|\*\*\*Timeout|\*\*\*Exception| Subprocess).*' \
      "$work/mutant-$n.log" | sed 's/ \..*//') || true
    echo "mutant $n: killed by ${by:-the suite} in $((SECONDS - t0)) s ($what)"
    killed=$((killed + 1))
  elif [[ -n $why ]]; then
    echo "mutant $n: accounted for: $what ($why)"
    accounted=$((accounted + 1))
  else
    echo "mutant $n: SURVIVED: $what ($file)"
    survived=$((survived + 1))
  fi
  restore
done

echo "mutation: $killed of ${#numbers[@]} killed, $((survived + accounted)) survived" \
  "($accounted accounted for), $((SECONDS - started)) s"
((survived == 0))
