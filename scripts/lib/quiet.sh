# Sourced. quietly WHAT LOG COMMAND... says what is being done and how long it took, and nothing of
# what the command says, which goes into LOG; where it fails, that is shown, without the steps that
# went well. On a terminal the step of the build that is being done stands beside WHAT.

quietly() {
    local what=$1 log=$2 started=$SECONDS code=0
    shift 2
    if [ -t 1 ]; then
        printf '%s ...' "$what"
        "$@" </dev/null 2>&1 | tee "$log" | awk -v what="$what" '
            /^\[[0-9]+\/[0-9]+\]/ { printf "\r%s %s ...", what, $1; fflush() }' || code=$?
        printf '\r\033[K'
    else
        "$@" </dev/null >"$log" 2>&1 || code=$?
    fi
    if [ "$code" -ne 0 ]; then
        grep -v '^\[[0-9]*/[0-9]*\] ' "$log" || true
        printf '%s: FAILED after %d s, all that it said is in %s\n' \
            "$what" $((SECONDS - started)) "$log"
        return "$code"
    fi
    printf '%s: %d s\n' "$what" $((SECONDS - started))
}
