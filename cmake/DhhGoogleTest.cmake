# GoogleTest for the test binaries, as the target GTest::gtest: the installed
# package where it fits the build, else built from source (Debian's googletest
# package puts it in /usr/src/googletest).
set(DHH_GOOGLETEST_SOURCE_DIR /usr/src/googletest CACHE PATH
    "GoogleTest's source folder, built when no installed GoogleTest fits the build")

# The host's libgtest is of the host's architecture and uninstrumented: -m32
# and ARM builds would fail to link it and sanitizer builds would miss what
# happens inside it, so they build GoogleTest from source.
if(NOT CMAKE_CROSSCOMPILING AND NOT DHH_SANITIZE)
  find_package(GTest QUIET)
endif()
if(NOT TARGET GTest::gtest)
  if(NOT EXISTS ${DHH_GOOGLETEST_SOURCE_DIR}/CMakeLists.txt)
    message(FATAL_ERROR "GoogleTest not found: install it (Debian: googletest and libgtest-dev, "
            "as scripts/setup.sh does), point DHH_GOOGLETEST_SOURCE_DIR at its source folder, "
            "or configure with -DBUILD_TESTING=OFF")
  endif()
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
  add_subdirectory(${DHH_GOOGLETEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
endif()

if(CMAKE_CROSSCOMPILING AND NOT CMAKE_CROSSCOMPILING_EMULATOR)
  message(FATAL_ERROR "The tests of a ${CMAKE_SYSTEM_PROCESSOR} build run through qemu-user, "
          "which is not installed (scripts/setup.sh installs it); a device build needs "
          "-DBUILD_TESTING=OFF")
endif()
include(GoogleTest)
