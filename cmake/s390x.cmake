# Cross build for a big-endian machine, to run its tests here: Debian's s390x toolchain, the libraries that scripts/deps
# unpacks, and qemu's user emulation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(CMAKE_CXX_COMPILER s390x-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE s390x-linux-gnu)

get_filename_component(S390X_LIBRARIES ${CMAKE_CURRENT_LIST_DIR}/../build/tools/s390x ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH ${S390X_LIBRARIES} /usr/s390x-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${S390X_LIBRARIES})
set(ENV{PKG_CONFIG_LIBDIR} ${S390X_LIBRARIES}/usr/lib/s390x-linux-gnu/pkgconfig)

# What a library needs itself is found there too, by the linker and by the emulated loader.
set(CMAKE_EXE_LINKER_FLAGS_INIT -Wl,-rpath-link,${S390X_LIBRARIES}/usr/lib/s390x-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR
    qemu-s390x -L /usr/s390x-linux-gnu -E LD_LIBRARY_PATH=${S390X_LIBRARIES}/usr/lib/s390x-linux-gnu)
