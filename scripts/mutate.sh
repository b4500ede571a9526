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
# runs so that the next one rebuilds only what changed.
set -euo pipefail
cd "$(dirname "$0")/.."
source=$PWD
list=$source/scripts/mutants.txt
work=${PALIMBO_MUTATION_DIR:-${TMPDIR:-/tmp}/palimbo-mutation}
tree=$work/tree
build=$work/build
started=$SECONDS

# Reads the list; "count", "what N", "why N" and "plant N" (prints the file it changed).
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
elif action == "why":
    print(why)
elif action == "plant":
    old, new = old.replace("\\n", "\n"), new.replace("\\n", "\n")
    text = open(f"{tree}/{path}", encoding="utf-8").read()
    if text.count(old) != 1:
        sys.exit(f"{path}: the text of '{what}' occurs {text.count(old)} times, not once")
    open(f"{tree}/{path}", "w", encoding="utf-8").write(text.replace(old, new))
    print(path)
EOF
}

# A fresh copy of the sources; their times are kept, so the build stays incremental.
rm -rf "$tree"
mkdir -p "$tree" "$build"
tar -C "$source" --exclude='./build*' --exclude=./.git -cf - . | tar -C "$tree" -xf -

count=$(mutants count)
numbers=("$@")
((${#numbers[@]})) || mapfile -t numbers < <(seq 1 "$count")
for n in "${numbers[@]}"; do mutants what "$n" >/dev/null; done

# Light optimisation and no debug information: the rebuilds dominate, not the tests.
cmake -S "$tree" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -DPALIMBO_BENCH=OFF -DPALIMBO_TEST_TIMEOUT=60 >/dev/null

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
suite "$work/clean.log" || {
  grep -E '\*\*\*|Failed' "$work/clean.log" >&2 || true
  echo "the suite fails without faults" >&2
  exit 2
}

killed=0 survived=0 accounted=0
for n in "${numbers[@]}"; do
  what=$(mutants what "$n")
  why=$(mutants why "$n")
  file=$(mutants plant "$n")
  cp "$source/$file" "$work/original"
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
  cp "$work/original" "$tree/$file"
done

echo "mutation: $killed of ${#numbers[@]} killed, $((survived + accounted)) survived" \
  "($accounted accounted for), $((SECONDS - started)) s"
((survived == 0))
