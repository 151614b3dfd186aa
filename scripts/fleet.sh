#!/usr/bin/env bash
# Replays every trip file under DIR through obd-sim at --speed max, one process per trip, on every
# core (or on several machines) with GNU parallel, then writes the fleet table and page
# (obd-fleet table): OUT/fleet.csv and OUT/fleet.html. A trip that cannot be replayed is listed
# with its reason and the rest go on. Exits 0 when every trip replayed and the plug-in behaved,
# 6 when some did not, 1 or 2 on errors.
#
#   bash scripts/fleet.sh [--columns MAP] [--thresholds FILE]... [--report] [--out DIR]
#                         [--jobs N] [--sshloginfile F] [-- obd-sim args...] FLEET_DIR
#
#   FLEET_DIR          every *.csv and *.pcap (obd-sim --capture) under it is a trip; its
#                      first folder names the vehicle or driver, the first YYYYMMDD in its
#                      path the date. A capture is replayed (obd-sim --replay); one whose
#                      plug-in now does other than recorded is listed as diverged, with its
#                      first difference, and its summary is kept
#   --columns MAP      obd-sim's --columns for every CSV trip (polidriving for the recorded
#                      trips; none for obd-sim's own format, as obd-fleet synth writes)
#   --thresholds FILE  a what-if set of analyser thresholds (JSON); repeat for several: each
#                      trip's alarms under each set go beside the plug-in's own
#   --report           each trip's report page too (trips/ID/report.html, linked from the page)
#   --out DIR          default fleet-out: parallel's joblog, trips.tsv (id and file of each
#                      trip), trips/ID/ (summary.json, status, sim.err), fleet.csv, fleet.html;
#                      a second call with the same DIR runs only the trips not done yet
#   --jobs N           trips at a time per machine (default: one per core)
#   --sshloginfile F   machines to run on, parallel's format ("8/user@host", ":" for this one);
#                      each needs the build, the trips and DIR at the same absolute paths
#   --list-only        write OUT/trips.tsv (the trips and their ids) and stop: the Slurm job
#                      array (scripts/fleet.sbatch) runs its lines
#   -- ARGS            more obd-sim arguments (--plugin P, --product-type 72, ...)
#
# Environment: OBD_SIM and OBD_FLEET, the programs (default build/bin/obd-sim, build/bin/obd-fleet).
set -euo pipefail

usage() {
    sed -n '/^#   bash/,/^#   -- ARGS/p' "$0" | sed 's/^# \{0,1\}//' >&2
    exit 2
}
die() {
    echo "fleet: $1" >&2
    exit "${2:-2}"
}

columns='' report=0 out='' jobs='' sshloginfile='' fleet='' listOnly=0
thresholds=() extra=()
while (($# > 0)); do
    case $1 in
    --columns | --thresholds | --out | --jobs | --sshloginfile)
        (($# >= 2)) || die "$1 needs a value"
        case $1 in
        --columns) columns=$2 ;;
        --thresholds) thresholds+=("$2") ;;
        --out) out=$2 ;;
        --jobs) jobs=$2 ;;
        --sshloginfile) sshloginfile=$2 ;;
        esac
        shift 2
        ;;
    --report)
        report=1
        shift
        ;;
    --list-only)
        listOnly=1
        shift
        ;;
    --)
        shift
        extra=("$@")
        break
        ;;
    -h | --help) usage ;;
    -*) die "unknown argument '$1' (--help lists them)" ;;
    *)
        [[ -z $fleet ]] || die "one fleet folder only ('$fleet' and '$1')"
        fleet=$1
        shift
        ;;
    esac
done

[[ -n $fleet ]] || die "the fleet folder is needed (--help)"
[[ -d $fleet ]] || die "$fleet is not a folder" 1
[[ -z $jobs || $jobs =~ ^[1-9][0-9]*$ ]] || die "--jobs $jobs is not a count"
[[ -z $sshloginfile || -r $sshloginfile ]] || die "cannot read $sshloginfile"
command -v parallel >/dev/null || die "GNU parallel is missing: bash scripts/deps.sh installs it" 1

root=$(cd "$(dirname "$0")/.." && pwd)
sim=${OBD_SIM:-$root/build/bin/obd-sim}
tally=${OBD_FLEET:-$root/build/bin/obd-fleet}
[[ -x $sim ]] || die "no obd-sim at $sim: build it (cmake --build build --target obd-sim)" 1
[[ -x $tally ]] || die "no obd-fleet at $tally: build it (cmake --build build --target obd-fleet)" 1
# Absolute, so that they name the same files on every machine and from any folder.
abs() { echo "$(cd "$(dirname "$1")" && pwd)/$(basename "$1")"; }
sim=$(abs "$sim")
fleet=$(cd "$fleet" && pwd)
out=${out:-fleet-out}
mkdir -p "$out/trips"
out=$(cd "$out" && pwd)
for i in "${!thresholds[@]}"; do
    [[ -r ${thresholds[$i]} ]] || die "cannot read ${thresholds[$i]}" 1
    thresholds[i]=$(abs "${thresholds[$i]}")
done

# parallel's --resume goes by job numbers alone: the joblog only fits the run that wrote it.
run=$(printf '%q ' "$sim" "$fleet" --columns "$columns" --report "$report" \
    ${thresholds[@]+"${thresholds[@]}"} -- ${extra[@]+"${extra[@]}"})
if [[ -f $out/run && $(<"$out/run") != "$run" ]]; then
    die "$out holds another run ($(<"$out/run")): pick another --out"
fi
echo "$run" >"$out/run"

# The trips, in a fixed order: the list is the job numbering --resume relies on, so it is made
# once per run folder and kept.
if [[ ! -f $out/trips.tsv ]]; then
    # A capture keeps its extension in its id: a trip.csv and the trip.pcap recorded from it
    # are two trips.
    (cd "$fleet" && find . -type f \( -name '*.csv' -o -name '*.pcap' \) -printf '%P\n' |
        LC_ALL=C sort) |
        awk '{ id = $0; gsub("/", "__", id); sub(/\.csv$/, "", id); print id "\t" $0 }' \
            >"$out/trips.tsv.new"
    mv "$out/trips.tsv.new" "$out/trips.tsv"
fi
total=$(wc -l <"$out/trips.tsv")
((total > 0)) || die "no *.csv or *.pcap under $fleet" 1
if ((listOnly)); then
    echo "fleet: $total trips of $fleet listed in $out/trips.tsv"
    exit 0
fi

# One trip: its summary (and page) into trips/ID/, its exit status into trips/ID/status. A
# trip's failure is its row's business, so the job's own status stays obd-sim's for the joblog.
args=(--speed max)
[[ -z $columns ]] || args+=(--columns "$columns")
for t in ${thresholds[@]+"${thresholds[@]}"}; do args+=(--thresholds "$t"); done
args+=(${extra[@]+"${extra[@]}"})
# A capture plays what it recorded: no columns, no speed (it runs on virtual time anyway).
capArgs=()
for t in ${thresholds[@]+"${thresholds[@]}"}; do capArgs+=(--thresholds "$t"); done
capArgs+=(${extra[@]+"${extra[@]}"})
d="$(printf %q "$out")/trips/{1}"
f="$(printf %q "$fleet")/{2}"
# A logger ends every row with a line end: a file whose last byte is none was cut off while
# written or copied, and its last row may hold a number cut short, which no reader can tell.
outputs="--summary-json $d/summary.json"
((report == 0)) || outputs+=" --report $d/report.html"
cmd="mkdir -p $d && rm -f $d/summary.json $d/report.html $d/status; "
cmd+="case {2} in *.pcap) "
cmd+="$(printf '%q ' "$sim" --replay)$f ${capArgs[*]+$(printf '%q ' "${capArgs[@]}")}$outputs; s=\$? ;; *) "
cmd+="if [ -s $f ] && [ -n \"\$(tail -c 1 $f)\" ]; then "
cmd+="echo 'fleet: the file is cut off (its last line has no line end)' >&2; s=1; else "
cmd+="$(printf '%q ' "$sim" "${args[@]}")--scenario $f $outputs"
cmd+="; s=\$?; fi ;; esac; echo \$s >$d/status; exit \$s"
opts=(--colsep '\t' --joblog "$out/joblog" --resume --results "$out/trips/{1}/sim")
[[ -z $jobs ]] || opts+=(-j "$jobs")
[[ -z $sshloginfile ]] || opts+=(--sshloginfile "$sshloginfile")

# A trip cut short (Ctrl-C, a machine lost) left its files but no joblog row: with --results,
# parallel would take the files for a finished run, so they go and the trip runs again.
{ cat "$out/joblog" 2>/dev/null || true; } |
    awk -F'\t' -v trips="$out/trips" '
        FILENAME == "-" { if (FNR > 1 && match($9, /\/trips\/[^\/ ]+\//)) done[substr($9, RSTART + 7, RLENGTH - 8)] = 1; next }
        !($1 in done) { d = trips "/" $1 "/sim"; print d; print d ".err"; print d ".seq" }' \
        - "$out/trips.tsv" |
    xargs -r -d '\n' rm -f
logged() { if [[ -f $out/joblog ]]; then echo $(($(wc -l <"$out/joblog") - 1)); else echo 0; fi; }
before=$(logged)
start=$SECONDS
echo "fleet: $total trips of $fleet into $out/ ($before done before)"
status=0
parallel "${opts[@]}" "$cmd" <"$out/trips.tsv" >/dev/null || status=$?
# 1-101: that many trips failed, which the table tells; above that, parallel itself failed.
((status <= 101)) || die "GNU parallel stopped (status $status): the same call goes on from here" 1
echo "fleet: this call replayed $(($(logged) - before)) of $total trips in $((SECONDS - start)) s;" \
    "joblog $out/joblog"
"$tally" table "$out"
