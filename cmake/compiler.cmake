# Warnings, hardening and sanitizers for every target of the project.
add_compile_options(
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Wold-style-cast
  -Wcast-qual -Wformat=2 -Wimplicit-fallthrough -Werror)

# A 32-bit machine's clock reaches beyond 2038, and its time_t is the one that the sources reckon with. Debian 13 builds
# everything for such machines so. That GCC 7 changed how ARM's functions are called is nothing to be told of each of them.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
  add_compile_options(-Wno-psabi)
endif()

set(CMAKE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)
check_pie_supported()

# The crash report names functions: keep their symbols and frames in every build. Other builds bring their own -g, or do
# without where only the compiler's judgement counts.
add_compile_options($<$<CONFIG:Release>:-g> -fno-omit-frame-pointer)
add_link_options(-rdynamic)

# What sanitizers find does not depend on the optimizer's last third, which takes most of the compiler's time; their
# reports want lines, not variables.
if(LB_SANITIZER)
  set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O1 -g1 -DNDEBUG")
endif()

if(LB_SANITIZER STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
  if(LB_FUZZ)
    add_compile_options(-fsanitize=fuzzer-no-link)
  endif()
elseif(LB_SANITIZER STREQUAL "thread")
  add_compile_options(-fsanitize=thread)
  add_link_options(-fsanitize=thread)
else()
  # tests/hardening looks for the marks of these in the programs. Debian 12's start files lack those of control-flow
  # protection, so the linker would drop them.
  add_compile_options(-fstack-protector-strong -fstack-clash-protection)
  add_compile_definitions($<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
  add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
endif()

# Instrumented code misleads GCC's flow analysis of the standard library's copies; the plain builds
# keep these warnings.
if(LB_SANITIZER AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options(-Wno-array-bounds -Wno-stringop-overflow -Wno-stringop-overread
                      -Wno-maybe-uninitialized -Wno-restrict)
endif()
