#!/usr/bin/env bash
# A job for each recording of a list, on a cluster with Slurm:
#
#   mkdir -p sorted
#   sbatch --array=1-"$(wc -l < recordings.txt)" sort-array.sh recordings.txt
#
# recordings.txt has a path on every line; a job takes the line of its number, so new ones
# belong at the end. Submitted again, jobs whose files are all there end at once. Options for
# all of them follow the list:
#
#   sbatch --array=1-40%8 sort-array.sh recordings.txt --filter auto --config probe.cfg
#
#SBATCH --job-name=kestrelvane
#SBATCH --cpus-per-task=4
#SBATCH --mem=16G
#SBATCH --time=04:00:00
#SBATCH --output=sorted/%x-%A_%a.out
#SBATCH --open-mode=append
# Two minutes before the time is over the sort is asked to stop, and keeps what it has finished.
#SBATCH --signal=B:TERM@120
#SBATCH --requeue
set -eu

list=$1
shift
recording=$(sed -n "${SLURM_ARRAY_TASK_ID}p" "$list")
if [ -z "$recording" ]; then
  echo "There is no line $SLURM_ARRAY_TASK_ID in $list" >&2
  exit 2
fi

# The number keeps recordings of the same name in different folders apart.
name=$(basename "$recording")
out=sorted/$(printf '%03d' "$SLURM_ARRAY_TASK_ID")-${name%.*}
mkdir -p sorted
kestrelvane-batch sort "$recording" --skip-existing --threads "${SLURM_CPUS_PER_TASK:-1}" \
  --resume --checkpoint --save-work "$out.wrk" --export "csv=$out.csv" --export "nwb=$out.nwb" \
  --report "$out.json" --log "$out.log" "$@" &
sort=$!
stopped=no
trap 'stopped=yes; kill -TERM "$sort"' TERM
status=0
wait "$sort" || status=$?
# The signal ends the first wait and not the sort.
if [ "$stopped" = yes ]; then
  status=0
  wait "$sort" || status=$?
fi
# Once more, after the last finished stage.
if [ "$stopped" = yes ] && [ "$status" -ne 0 ]; then
  scontrol requeue "${SLURM_ARRAY_JOB_ID}_$SLURM_ARRAY_TASK_ID" && exit 0
fi
# Without events there is a report and no sort: nothing that another try would mend.
if [ "$status" -eq 3 ]; then
  echo "No events: $recording"
  exit 0
fi
exit "$status"
