# 32-bit ARM (hard float), the device's architecture, with Debian's
# arm-linux-gnueabihf cross toolchain. char is unsigned there and alignment is
# stricter. Tests run on this machine through qemu-user when it is installed; a
# device build needs no emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(DHH_ARM_TRIPLET arm-linux-gnueabihf CACHE STRING "The cross toolchain's prefix")
set(CMAKE_C_COMPILER ${DHH_ARM_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${DHH_ARM_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${DHH_ARM_TRIPLET})
# GCC notes that passing some classes changed in GCC 7.1 (-Wpsabi): it matters
# only beside objects built by GCC 6 or older, which nothing here links.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
# An integrator's own sysroot: -DDHH_ARM_SYSROOT=/path.
set(DHH_ARM_SYSROOT /usr/${DHH_ARM_TRIPLET} CACHE PATH "Where the target's libraries and headers are")

set(CMAKE_FIND_ROOT_PATH ${DHH_ARM_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(DHH_QEMU_ARM NAMES qemu-arm qemu-arm-static)
if(DHH_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${DHH_QEMU_ARM} -L ${DHH_ARM_SYSROOT})
endif()
