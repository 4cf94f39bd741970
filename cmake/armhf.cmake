# 32-bit ARM with glibc, or any other toolchain of the GNU kind with a sysroot. Each of these is a
# cache variable or, without it, an environment variable:
#   CLOUD_SVR_SYSROOT   what the device has, with headers; the compiler's own when left out
#   CLOUD_SVR_TRIPLET   what the compiler's name begins with, its folder included unless it is found
#                       through PATH; arm-linux-gnueabihf when left out
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

foreach(name CLOUD_SVR_SYSROOT CLOUD_SVR_TRIPLET)
    if(NOT ${name})
        set(${name} "$ENV{${name}}")
    endif()
endforeach()
if(NOT CLOUD_SVR_TRIPLET)
    set(CLOUD_SVR_TRIPLET arm-linux-gnueabihf)
endif()
# The compiler checks are projects of their own, which read this file again.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CLOUD_SVR_SYSROOT CLOUD_SVR_TRIPLET)

set(CMAKE_C_COMPILER ${CLOUD_SVR_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${CLOUD_SVR_TRIPLET}-g++)
get_filename_component(CMAKE_LIBRARY_ARCHITECTURE ${CLOUD_SVR_TRIPLET} NAME)
if(CLOUD_SVR_SYSROOT)
    set(CMAKE_SYSROOT ${CLOUD_SVR_SYSROOT})
    set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${CLOUD_SVR_SYSROOT})
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
