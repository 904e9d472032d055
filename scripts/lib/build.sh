# Sourced, from anywhere. Goes to the top of the checkout; build_preset NAME [--target TARGET...]
# installs what the preset needs, configures it and builds it in build/NAME, quietly unless it fails.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
. scripts/lib/packages.sh
. scripts/lib/quiet.sh

build_preset() {
    local preset=$1
    shift

    local packages=(cmake ninja-build g++ libsqlite3-dev libgtest-dev libgmock-dev
        libbenchmark-dev "${tool_packages[@]}")
    case $preset in
        clang) packages+=(clang) ;;
        sanitize | faults-sanitize | fuzz) packages+=(clang libclang-rt-14-dev llvm) ;;
        arm*) packages+=(g++-arm-linux-gnueabihf qemu-user googletest) ;;
    esac
    need_packages "${packages[@]}"
    case $preset in
        arm*) scripts/arm-root ;;
    esac

    local targets=${*:2}
    mkdir -p "build/$preset"
    quietly "Configuring build/$preset" "build/$preset/configure.log" cmake --preset "$preset"
    quietly "Building ${targets:+$targets in }build/$preset" "build/$preset/build.log" \
        cmake --build --preset "$preset" --parallel "$(nproc)" "$@"
}
