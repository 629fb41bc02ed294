#!/usr/bin/env bash
# A real single-node Slurm cluster (slurmctld, slurmd and munged on this
# machine, configuration under the build folder) runs the catalogue array
# script over a folder of photos and hostile files. Checked: every good photo
# is exported exactly once with its receipt, each file set aside is listed
# once, and the merged report matches every receipt; then again after one
# task is cancelled mid-run and requeued.
#
#   slurm_array_test.sh TARNBLOOM SOURCE_DIR WORK_DIR
#
# Exit 77 (skipped) without root or without Debian's slurm-wlm and munge.
set -euo pipefail

tarnbloom=$(realpath "$1")
source_dir=$(realpath "$2")
work=$3
script="$source_dir/deploy/slurm/tarnbloom-array.sbatch"
python=/usr/bin/python3
[ -x "$python" ] || python=python3

skip() {
  echo "SKIPPED: $*" >&2
  exit 77
}
[ "$(id -u)" -eq 0 ] || skip "the Slurm daemons need root (run the tests as root, as CI does)."
for tool in slurmctld slurmd munged sbatch squeue scontrol scancel; do
  command -v "$tool" >/dev/null || skip "$tool is missing: apt-get install slurm-wlm munge."
done
"$tarnbloom" enlarge --help | grep -q -- '--shard' ||
  skip "tarnbloom enlarge has no --shard option in this build."

rm -rf "$work"
mkdir -p "$work"/{ctld,spool,run}
work=$(realpath "$work")
pids=()
teardown() {
  local status=$?
  set +e
  # Jobs first, so no task outlives the cluster; then the daemons, by pid.
  [ -f "$work/slurm.conf" ] && SLURM_CONF="$work/slurm.conf" scancel --full --quiet -u root 2>/dev/null
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null; done
  for pid in "${pids[@]}"; do
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -9 "$pid" 2>/dev/null
  done
  if ((status != 0 && status != 77)); then
    echo "--- logs kept in $work" >&2
    tail -n 20 "$work"/*.log "$work"/out*/.tarnbloom-cluster/logs/*.log 2>/dev/null >&2
  else
    rm -rf "$work"
  fi
  exit "$status"
}
trap teardown EXIT

# munge, on a socket of its own so a system munged is left alone.
dd if=/dev/urandom of="$work/munge.key" bs=1024 count=1 status=none
chmod 400 "$work/munge.key"
chmod 700 "$work/run"
munged --force --key-file="$work/munge.key" --socket="$work/run/munge.sock" \
  --pid-file="$work/run/munged.pid" --seed-file="$work/run/munge.seed" \
  --log-file="$work/munged.log"
for _ in $(seq 50); do [ -s "$work/run/munged.pid" ] && break; sleep 0.1; done
pids+=("$(cat "$work/run/munged.pid")")

node=$(hostname -s)
port=$((20000 + RANDOM % 20000))
hardware=$(slurmd -C | head -n 1 | sed 's/^NodeName=[^ ]* //')
cat >"$work/slurm.conf" <<CONF
ClusterName=tarnbloomtest
SlurmctldHost=$node(127.0.0.1)
SlurmctldPort=$port
SlurmdPort=$((port + 1))
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
CredType=cred/munge
AuthInfo=socket=$work/run/munge.sock
StateSaveLocation=$work/ctld
SlurmdSpoolDir=$work/spool
SlurmctldPidFile=$work/run/slurmctld.pid
SlurmdPidFile=$work/run/slurmd.pid
SlurmctldLogFile=$work/slurmctld.log
SlurmdLogFile=$work/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
JobCompType=jobcomp/none
SchedulerType=sched/backfill
SelectType=select/cons_tres
SelectTypeParameters=CR_Core
SlurmdParameters=config_overrides
ReturnToService=2
MpiDefault=none
KillWait=5
SchedulerParameters=sched_interval=1
NodeName=$node NodeAddr=127.0.0.1 $hardware State=UNKNOWN
PartitionName=test Nodes=$node Default=YES MaxTime=INFINITE State=UP
CONF
export SLURM_CONF="$work/slurm.conf"
slurmctld -f "$SLURM_CONF" -i
slurmd -f "$SLURM_CONF"
for _ in $(seq 100); do
  [ -s "$work/run/slurmctld.pid" ] && [ -s "$work/run/slurmd.pid" ] && break
  sleep 0.1
done
pids+=("$(cat "$work/run/slurmd.pid")" "$(cat "$work/run/slurmctld.pid")")
for _ in $(seq 300); do
  sinfo -h -o %t 2>/dev/null | grep -qE '^idle' && break
  sleep 0.1
done
sinfo -h -o %t | grep -qE '^idle' || { echo "the test node did not come up" >&2; exit 1; }

in="$work/catalogue"
mkdir -p "$in"
"$python" "$source_dir/tests/cluster/make_catalogue.py" "$in" 104 "$source_dir/samples/rocket.jpg" \
  >"$work/good.txt"

# Waits until the job ids given have left the queue.
wait_jobs() {
  local ids
  ids=$(IFS=,; echo "$*")
  for _ in $(seq 1800); do
    [ -z "$(squeue -h -j "$ids" 2>/dev/null)" ] && return 0
    sleep 0.2
  done
  echo "jobs $ids did not finish" >&2
  squeue >&2
  return 1
}

# Submits the array over the catalogue into OUTPUT; prints "ARRAY REPORT".
submit() {
  local output=$1
  shift
  TARNBLOOM="$tarnbloom" TARNBLOOM_SBATCH="--cpus-per-task=1 --mem-per-cpu=100M" "$@" \
    "$script" submit "$in" "$output" 4 --size x2 --method exact |
    sed -n 's/^array job \([0-9]*\) .*report job \([0-9]*\)$/\1 \2/p'
}

# The invariants: from the catalogue, the report and the merged exclusions.
check() {
  "$python" - "$in" "$1" "$work/good.txt" <<'PY'
import csv, os, sys
catalogue, out, good_list = sys.argv[1:4]
work = os.path.join(out, ".tarnbloom-cluster")
good = [os.path.join(catalogue, line) for line in open(good_list).read().split()]
rows = list(csv.DictReader(open(os.path.join(work, "report.csv"), newline="")))
bad = [r for r in rows if r["status"] != "ok"]
assert not bad, "report problems: %r" % bad[:5]
by_source = {}
for r in rows:
    by_source.setdefault(r["source"], []).append(r)
    receipt = r["receipt"]
    assert os.path.isfile(receipt) and os.path.isfile(r["output"]), r
for photo in good:
    made = by_source.get(photo, [])
    assert len(made) == 1, "%s exported %d times" % (photo, len(made))
excluded = [line.split("\t")[0] for line in open(os.path.join(work, "exclusions.tsv")).read().splitlines()[1:]]
assert len(excluded) == len(set(excluded)), "an exclusion listed twice: %r" % excluded
for hostile in ("shot-list.jpg", "empty.png"):
    assert excluded.count(os.path.join(catalogue, hostile)) == 1, (hostile, excluded)
for hostile in ("shot-list.jpg", "empty.png", "set-1/truncated.jpg"):
    assert len(by_source.get(os.path.join(catalogue, hostile), [])) <= 1, hostile
extra = set(by_source) - set(good) - {os.path.join(catalogue, "set-1/truncated.jpg")}
assert not extra, "exported files that are not in the catalogue: %r" % extra
logs = [f for f in os.listdir(os.path.join(work, "logs")) if f.startswith("shard-")]
assert len({f.split("-")[1] for f in logs}) == 4, logs
print("ok: %d photos exported once each, %d set aside" % (len(good), len(excluded)))
PY
}

# 1. The whole array, then the dependent report job.
read -r array report < <(submit "$work/out")
[ -n "${report:-}" ] || { echo "the array was not submitted" >&2; exit 1; }
wait_jobs "$array" "$report"
check "$work/out"

# 2. One task at a time; task 0 is cancelled once it has published a few
# photos, the others run, then task 0 is requeued and the report made again.
read -r array report < <(TARNBLOOM_PARALLEL=1 submit "$work/out2")
cancelled=""
for _ in $(seq 3000); do
  published=$(find "$work/out2" -name '*.tarnbloomreceipt' -not -path '*/.*' 2>/dev/null | wc -l)
  if ((published >= 2)); then
    scancel "${array}_0"
    cancelled=$published
    break
  fi
  sleep 0.05
done
[ -n "$cancelled" ] || { echo "task 0 published nothing to cancel" >&2; exit 1; }
wait_jobs "$array" "$report"
state=$(scontrol -o show job "${array}_0" | grep -o 'JobState=[A-Z]*')
[ "$state" = "JobState=CANCELLED" ] || { echo "task 0 was not cancelled mid-run: $state" >&2; exit 1; }
scontrol requeue "${array}_0"
wait_jobs "$array"
read -r report < <(TARNBLOOM="$tarnbloom" "$script" report "$work/out2" | sed -n 's/^report job //p')
wait_jobs "$report"
check "$work/out2"
