# Cross build for another machine (LB_MACHINE, by Debian's name of it), to package it and to run its tests here: Debian's
# cross compiler, the libraries that scripts/deps unpacks, and qemu's user emulation.
set(LB_MACHINE "" CACHE STRING "machine of a cross build: arm64, armhf, riscv64 or s390x")
# The probes of a cross build look at the toolchain as well.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES LB_MACHINE)

set(MACHINE_arm64 aarch64 aarch64-linux-gnu aarch64)
set(MACHINE_armhf arm arm-linux-gnueabihf arm)
set(MACHINE_riscv64 riscv64 riscv64-linux-gnu riscv64)
set(MACHINE_s390x s390x s390x-linux-gnu s390x)
if(NOT DEFINED MACHINE_${LB_MACHINE})
  message(FATAL_ERROR "LB_MACHINE is '${LB_MACHINE}', not arm64, armhf, riscv64 or s390x; run: scripts/build MACHINE")
endif()
list(GET MACHINE_${LB_MACHINE} 0 CMAKE_SYSTEM_PROCESSOR)
list(GET MACHINE_${LB_MACHINE} 1 CMAKE_LIBRARY_ARCHITECTURE)
list(GET MACHINE_${LB_MACHINE} 2 EMULATED)
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-g++)

get_filename_component(MACHINE_LIBRARIES ${CMAKE_CURRENT_LIST_DIR}/../build/tools/${LB_MACHINE} ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH ${MACHINE_LIBRARIES} /usr/${CMAKE_LIBRARY_ARCHITECTURE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${MACHINE_LIBRARIES})
set(ENV{PKG_CONFIG_LIBDIR}
    ${MACHINE_LIBRARIES}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:${MACHINE_LIBRARIES}/usr/share/pkgconfig)

# What a library needs itself is found there too, by the linker and by the emulated loader.
set(LIBRARY_FOLDER ${MACHINE_LIBRARIES}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
set(CMAKE_EXE_LINKER_FLAGS_INIT -Wl,-rpath-link,${LIBRARY_FOLDER})
set(CMAKE_CROSSCOMPILING_EMULATOR
    qemu-${EMULATED} -L /usr/${CMAKE_LIBRARY_ARCHITECTURE} -E LD_LIBRARY_PATH=${LIBRARY_FOLDER})
