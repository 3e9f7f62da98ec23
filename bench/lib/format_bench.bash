# Format benchmarks' shared rounds: Kdisk's /CRE /PRI /FOR $FORMAT_SWITCH against $OTHER on the
# same partition, side by side in one run, reported as the median time ratio of several rounds
# with the peak memory of each. The sourcing script sets OTHER and FORMAT_SWITCH and defines
# run_other SIZE KIND, which formats the partition at $start/$count (sectors) on a fresh disk
# (see fresh) and appends its measure to $WORK/mk.
KDISK=${1:?usage: $0 path/to/kdisk [work-dir] [rounds]}
WORK=$(mktemp -d "${2:-${TMPDIR:-/tmp}}/kdisk-bench-XXXXXX")
ROUNDS=${3:-5}
loop=""
cleanup() { [ -z "$loop" ] || losetup -d "$loop"; rm -rf "$WORK"; }
trap cleanup EXIT
for tool in "$OTHER" sfdisk jq; do command -v $tool >/dev/null || { echo "$tool is not installed"; exit 1; }; done

# measure OUTFILE COMMAND...: runs the command, appends "seconds kilobytes" to OUTFILE.
measure() {
  local out=$1; shift
  /usr/bin/time -f "%e %M" -a -o "$out" "$@" >/dev/null 2>&1
}

# fresh SIZE KIND: a new sparse image with an empty GPT, written out before the timed run; for
# KIND loop also a loop device over it. Sets disk (what the tools are given) and img.
fresh() {
  [ -z "$loop" ] || { losetup -d "$loop"; loop=""; }
  img=$WORK/bench.img
  rm -f "$img"; truncate -s "$1" "$img"
  printf 'label: gpt\n' | sfdisk -q "$img" >/dev/null
  disk=$img
  if [ "$2" = loop ]; then loop=$(losetup -f --show -P "$img") || return 1; disk=$loop; fi
  sync
}

run_kdisk() {
  fresh "$1" "$2" || return 1
  measure "$WORK/kd" "$KDISK" /NOOSDISK "/ADDDISK=$disk" 1 /CRE /PRI /FOR "$FORMAT_SWITCH"
  read -r start count < <(sfdisk -J "$img" | jq -r '.partitiontable.partitions[0] | "\(.start) \(.size)"')
}

# one NAME SIZE KIND: KIND image (a partition in an image file) or loop (a partition on a loop
# device), ROUNDS rounds, odd rounds Kdisk first, even rounds the other tool first.
one() {
  local name=$1 size=$2 kind=$3 round
  rm -f "$WORK/kd" "$WORK/mk"
  run_kdisk "$size" "$kind" || { echo "$name: skipped (no free loop device)"; return; }
  rm -f "$WORK/kd"  # the first run only learns the partition's place
  for ((round = 1; round <= ROUNDS; round++)); do
    if ((round % 2)); then run_kdisk "$size" "$kind"; run_other "$size" "$kind"
    else run_other "$size" "$kind"; run_kdisk "$size" "$kind"; fi
  done
  paste -d' ' "$WORK/kd" "$WORK/mk" | awk -v n="$name" -v o="$OTHER" '
    { kt[NR] = $1; km = $2 > km ? $2 : km; mt[NR] = $3; mm = $4 > mm ? $4 : mm; r[NR] = ($3 > 0 ? $1 / $3 : 0)
      runs = runs sprintf(" %.2f/%.2f", $1, $3) }
    function median(a, n,   i, j, t) {
      for (i = 1; i <= n; i++) for (j = i + 1; j <= n; j++) if (a[j] < a[i]) { t = a[i]; a[i] = a[j]; a[j] = t }
      return n % 2 ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2 }
    END { printf "%-20s kdisk %6.2f s %6d KiB  %s %6.2f s %6d KiB  median time ratio %.2f  (kdisk/%s s:%s)\n",
                 n, median(kt, NR), km, o, median(mt, NR), mm, median(r, NR), o, runs }'
}

echo "load: $(cut -d' ' -f1-3 /proc/loadavg), $ROUNDS rounds"
one "64 GiB sparse image" 64G image
one "2 TiB sparse image" 2T image
if [ "$(id -u)" -eq 0 ] && command -v losetup >/dev/null; then
  one "64 GiB loop device" 64G loop
else
  echo "64 GiB loop device: skipped (needs root and losetup)"
fi
echo "load: $(cut -d' ' -f1-3 /proc/loadavg)"
