# Sourced. What the command trendlog is built and tested with, and what installs what is missing:

# shellcheck disable=SC2034
tool_packages=(libcli11-dev libhowardhinnant-date-dev nlohmann-json3-dev libcsv-dev
    python3-pytest mandoc tzdata)

# need_packages NAME... installs the Debian packages among them that are missing.

need_packages() {
    local missing=() name
    for name in "$@"; do
        if [ "$(dpkg-query -W -f '${db:Status-Status}' "$name" 2>/dev/null)" != installed ]; then
            missing+=("$name")
        fi
    done
    if [ ${#missing[@]} -eq 0 ]; then
        return 0
    fi

    local as_root=(env)
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "Missing: ${missing[*]}. Install them as root, or install sudo." >&2
            return 1
        fi
        as_root=(sudo env)
    fi

    echo "Installing ${missing[*]}"
    local apt=(DEBIAN_FRONTEND=noninteractive apt-get -q -y -o DPkg::Lock::Timeout=600
        -o Acquire::Retries=3)
    # A list of some other source may be out of reach; whether that matters shows when installing.
    "${as_root[@]}" "${apt[@]}" update || echo "apt-get update failed, going on" >&2
    "${as_root[@]}" "${apt[@]}" install --no-install-recommends "${missing[@]}"
}
