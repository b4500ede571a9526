# Sourced by the Windows end-to-end tests: modules served by the Linux simulate on
# pseudo-terminals, and the check of a module's flash against the image.
# Expects `linux_cli` and `protocol`, and the image in $work/image.bin. Sets up `work`, a
# temporary folder, and `pids`, the processes killed with it when the caller exits.

work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  # A module writes its flash on its way out: the folder goes after it.
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

# Starts a simulated module, with further options of simulate if given; sets `pts` to its
# terminal and `sim` to its process.
start_module() {
  local name=$1
  "$linux_cli" simulate --protocol "$protocol" --dump "$work/$name.flash" "${@:2}" \
    >"$work/$name.sim" 2>"$work/$name.sim.err" &
  sim=$!
  pids+=("$sim")
  for _ in $(seq 100); do
    pts=$(head -n1 "$work/$name.sim" 2>/dev/null || true)
    [[ -n $pts ]] && return 0
    sleep 0.1
  done
  echo "simulate did not start: $(cat "$work/$name.sim.err")" >&2
  return 1
}

# Stops the module, so that it writes its flash, and compares that with the image.
check_flash() {
  local name=$1 length
  kill -INT "$sim"
  wait "$sim" || true
  length=$(stat -c %s "$work/image.bin")
  cmp -n "$length" "$work/image.bin" "$work/$name.flash" ||
    { echo "$name: the module's flash differs from the image" >&2; return 1; }
}

# The window of the program $1 (the caption never changes), once it shows.
wait_window() {
  local pid=$1 wid
  for _ in $(seq 300); do
    wid=$(xdotool search --onlyvisible --name '^Module programmer$' 2>/dev/null | head -n1)
    [[ -n $wid ]] && { echo "$wid"; return 0; }
    kill -0 "$pid" 2>/dev/null || return 1
    sleep 0.2
  done
  return 1
}

# Closes the window $1 of the program $2 as an operator does, and waits for the program's end.
close_window() {
  local wid=$1 program=$2
  xdotool key --window "$wid" alt+F4 2>/dev/null || true
  for _ in $(seq 100); do
    kill -0 "$program" 2>/dev/null || break
    sleep 0.2
  done
  kill -TERM "$program" 2>/dev/null || true
  wait "$program" 2>/dev/null || true
}
