# 32-bit x86 build: the device's word size. The host kernel runs no 32-bit
# programs, so tests run through qemu-user (found when installed; building
# needs no emulator).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_C_FLAGS_INIT -m32)
set(CMAKE_CXX_FLAGS_INIT -m32)
set(CMAKE_EXE_LINKER_FLAGS_INIT -m32)
set(CMAKE_SHARED_LINKER_FLAGS_INIT -m32)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)

# Debian's gcc-multilib, which supplies /usr/include/asm, conflicts with the ARM
# cross compiler; gcc-12-multilib does not. Without it the kernel's x86 asm
# headers (bi-arch) are reached through a private include directory.
if(NOT EXISTS /usr/include/asm AND EXISTS /usr/include/x86_64-linux-gnu/asm)
  set(DHH_M32_INCLUDE ${CMAKE_BINARY_DIR}/m32-include)
  file(MAKE_DIRECTORY ${DHH_M32_INCLUDE})
  file(CREATE_LINK /usr/include/x86_64-linux-gnu/asm ${DHH_M32_INCLUDE}/asm SYMBOLIC)
  string(APPEND CMAKE_C_FLAGS_INIT " -idirafter ${DHH_M32_INCLUDE}")
  string(APPEND CMAKE_CXX_FLAGS_INIT " -idirafter ${DHH_M32_INCLUDE}")
endif()

find_program(DHH_QEMU_I386 NAMES qemu-i386 qemu-i386-static)
if(DHH_QEMU_I386)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${DHH_QEMU_I386})
endif()
