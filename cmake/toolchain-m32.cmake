# 32-bit x86 build: the device's word size. The host kernel runs no 32-bit
# programs, so tests run through qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_C_FLAGS_INIT -m32)
set(CMAKE_CXX_FLAGS_INIT -m32)
set(CMAKE_EXE_LINKER_FLAGS_INIT -m32)
set(CMAKE_SHARED_LINKER_FLAGS_INIT -m32)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
find_program(DHH_QEMU_I386 NAMES qemu-i386 qemu-i386-static REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${DHH_QEMU_I386})
