# 32-bit ARM with uClibc: the compiler in CLOUD_SVR_UCLIBC/bin and the sysroot beside it, as
# scripts/target/prepare.sh lays them out. CLOUD_SVR_UCLIBC is a cache variable or, without it, an
# environment variable.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

if(NOT CLOUD_SVR_UCLIBC)
    set(CLOUD_SVR_UCLIBC "$ENV{CLOUD_SVR_UCLIBC}")
endif()
# The compiler checks are projects of their own, which read this file again.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CLOUD_SVR_UCLIBC)

set(CMAKE_C_COMPILER ${CLOUD_SVR_UCLIBC}/bin/arm-uclibc-gcc)
set(CMAKE_CXX_COMPILER ${CLOUD_SVR_UCLIBC}/bin/arm-uclibc-g++)
set(CMAKE_FIND_ROOT_PATH ${CLOUD_SVR_UCLIBC}/sysroot)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${CLOUD_SVR_UCLIBC}/sysroot)
