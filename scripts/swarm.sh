#!/usr/bin/env bash
# Runs obd-swarm over a range of seeds on every core, or on several machines, with GNU parallel,
# then prints the results table (obd-swarm --table). Exits 0 when every seed ran clean, 6 when a
# seed violated an invariant or left no result line, 1 or 2 on errors.
#
#   bash scripts/swarm.sh --seeds A-B [--hours H] [--jobs N] [--out DIR] [--sshloginfile F]
#                         [--retries N] [-- obd-swarm args...]
#
#   --seeds A-B        the seeds A to B (or one seed A)
#   --hours H          vehicle hours per seed (default 1)
#   --jobs N           runs at a time per machine (default: one per core)
#   --out DIR          default swarm-out/A-B: parallel's joblog, seeds/S (the result line of
#                      seed S) and seeds/S.err (its stderr); a second call with the same DIR runs
#                      only the seeds not done yet
#   --sshloginfile F   machines to run on, parallel's format ("8/user@host", ":" for this one);
#                      each needs the same build at the same absolute path
#   --retries N        run a seed again, on another machine, when it fails (for machines that
#                      drop out; a violation repeats exactly, so it only costs time)
#   -- ARGS            more obd-swarm arguments (--plugin P, --hang-s S, ...)
#
# Environment: OBD_SWARM, the program (default build/bin/obd-swarm; build-asan/bin/obd-swarm for
# the sanitizer build); OBD_SWARM_LAUNCHER, words put in front of it (qemu-arm for a cross build).
set -euo pipefail

usage() {
    sed -n '/^#   bash/,/^#   -- ARGS/p' "$0" | sed 's/^# \{0,1\}//' >&2
    exit 2
}
die() {
    echo "swarm: $1" >&2
    exit "${2:-2}"
}

seeds='' hours=1 jobs='' out='' sshloginfile='' retries=''
extra=()
while (($# > 0)); do
    case $1 in
    --seeds | --hours | --jobs | --out | --sshloginfile | --retries)
        (($# >= 2)) || die "$1 needs a value"
        case $1 in
        --seeds) seeds=$2 ;;
        --hours) hours=$2 ;;
        --jobs) jobs=$2 ;;
        --out) out=$2 ;;
        --sshloginfile) sshloginfile=$2 ;;
        --retries) retries=$2 ;;
        esac
        shift 2
        ;;
    --)
        shift
        extra=("$@")
        break
        ;;
    -h | --help) usage ;;
    *) die "unknown argument '$1' (--help lists them)" ;;
    esac
done

[[ $seeds =~ ^([0-9]{1,18})(-([0-9]{1,18}))?$ ]] || die "--seeds A-B is needed (e.g. --seeds 1-1000)"
first=$((10#${BASH_REMATCH[1]}))
last=$((10#${BASH_REMATCH[3]:-${BASH_REMATCH[1]}}))
((first <= last)) || die "--seeds $seeds: the first seed is above the last"
[[ $hours =~ ^[0-9]+(\.[0-9]+)?$ ]] || die "--hours $hours is not a number"
[[ -z $jobs || $jobs =~ ^[1-9][0-9]*$ ]] || die "--jobs $jobs is not a count"
[[ -z $retries || $retries =~ ^[1-9][0-9]*$ ]] || die "--retries $retries is not a count"
[[ -z $sshloginfile || -r $sshloginfile ]] || die "cannot read $sshloginfile"
command -v parallel >/dev/null || die "GNU parallel is missing: bash scripts/deps.sh installs it" 1

root=$(cd "$(dirname "$0")/.." && pwd)
swarm=${OBD_SWARM:-$root/build/bin/obd-swarm}
[[ -x $swarm ]] || die "no obd-swarm at $swarm: build it (bash scripts/run-sim.sh builds it)" 1
# Absolute, so that it names the same file on every machine and from any folder.
swarm=$(cd "$(dirname "$swarm")" && pwd)/$(basename "$swarm")
out=${out:-swarm-out/$first-$last}
mkdir -p "$out/seeds"

# parallel's --resume goes by job numbers alone: the joblog only fits the run that wrote it.
run=$(printf '%q ' "$swarm" --seeds "$first-$last" --hours "$hours" "${extra[@]}")
if [[ -f $out/run && $(<"$out/run") != "$run" ]]; then
    die "$out holds another run ($(<"$out/run")): pick another --out"
fi
echo "$run" >"$out/run"

cmd="${OBD_SWARM_LAUNCHER:+$OBD_SWARM_LAUNCHER }$(printf '%q ' "$swarm")--seed {} --hours $hours --json"
((${#extra[@]} == 0)) || cmd+=" $(printf '%q ' "${extra[@]}")"
opts=(--joblog "$out/joblog" --resume --results "$out/seeds/{}")
[[ -z $jobs ]] || opts+=(-j "$jobs")
[[ -z $sshloginfile ]] || opts+=(--sshloginfile "$sshloginfile")
[[ -z $retries ]] || opts+=(--retries "$retries")

# A run cut short (Ctrl-C, a machine lost) left its files but no joblog row: parallel would take
# the files for a finished run, so they go and the seed runs again.
{ cat "$out/joblog" 2>/dev/null || true; } |
    awk -F'\t' -v seeds="$out/seeds" '
        FILENAME == "-" { if (FNR > 1 && match($9, /--seed [0-9]+/)) done[substr($9, RSTART + 7, RLENGTH - 7)] = 1; next }
        !($0 in done) { print seeds "/" $0; print seeds "/" $0 ".err"; print seeds "/" $0 ".seq" }' \
        - <(find "$out/seeds" -maxdepth 1 -type f -regex '.*/[0-9]+' -printf '%f\n') |
    xargs -r -d '\n' rm -f
logged() { if [[ -f $out/joblog ]]; then echo $(($(wc -l <"$out/joblog") - 1)); else echo 0; fi; }
before=$(logged)
start=$SECONDS
echo "swarm: seeds $first-$last, $hours h each, into $out/ ($before done before)"
status=0
seq "$first" "$last" | parallel "${opts[@]}" "$cmd" || status=$?
# 1-101: that many runs failed, which the table tells; above that, parallel itself failed.
((status <= 101)) || die "GNU parallel stopped (status $status): the same call goes on from here" 1
echo "swarm: this call ran $(($(logged) - before)) of $((last - first + 1)) seeds in" \
    "$((SECONDS - start)) s; joblog $out/joblog"
# shellcheck disable=SC2086 # the launcher is words
${OBD_SWARM_LAUNCHER:-} "$swarm" --table "$out/seeds"
