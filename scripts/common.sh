# What the scripts share. Each sources it with its own arguments before anything else; it is not to be run by itself.
set -euo pipefail
script=$0

# Says what is wrong with the arguments, and ends.
refuse() {
    echo "$script: $*; see $script --help" >&2
    exit 2
}

# A script's help is the comment that it opens with.
for argument in "$@"; do
    [[ $argument != --help ]] || { awk 'NR > 1 && !/^#/ { exit } NR > 1 { sub(/^# ?/, ""); print }' "$script"; exit; }
done

# Configures a preset, silently unless it fails.
configure() { # <preset> [<option>...]
    local log
    log=$(cmake --preset "$@" 2>&1) || { echo "$log" >&2; exit 1; }
}

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
