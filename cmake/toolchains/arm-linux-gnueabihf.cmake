# 32-bit ARM with hardware floating point: Debian's cross compiler builds, qemu-arm runs.
#
# The target's libraries other than the compiler's own are looked for in TREND_ARM_ROOT, where
# scripts/arm-root unpacks them, and in whatever CMAKE_FIND_ROOT_PATH names besides.

set(TREND_ARM_ROOT "${CMAKE_CURRENT_LIST_DIR}/../../build/arm-root"
    CACHE PATH "Folder with the libraries and headers of the target")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TREND_ARM_ROOT)
get_filename_component(arm_root "${TREND_ARM_ROOT}" ABSOLUTE)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

# GCC 7 changed how some records are passed here; nothing older is linked with, so no notes about it.
set(CMAKE_C_FLAGS_INIT -Wno-psabi)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# Programs are those of the building machine, everything else is the target's.
list(APPEND CMAKE_FIND_ROOT_PATH "${arm_root}" /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# What libraries need in turn is there as well.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${arm_root}/usr/lib/arm-linux-gnueabihf")

set(CMAKE_CROSSCOMPILING_EMULATOR
    qemu-arm -L /usr/arm-linux-gnueabihf
    -E "LD_LIBRARY_PATH=${arm_root}/usr/lib/arm-linux-gnueabihf")
