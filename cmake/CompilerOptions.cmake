# Warnings and sanitizers shared by every target of the project. The libraries link this
# target inside the build tree only ($<BUILD_INTERFACE:...>): it is neither installed nor
# exported, so a consumer of the installed package keeps its own flags.
add_library(krtracker_options INTERFACE)
target_compile_options(krtracker_options INTERFACE -Wall -Wextra -Wpedantic)

if(KRTRACKER_SANITIZE STREQUAL "address")
  set(_san -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
elseif(KRTRACKER_SANITIZE STREQUAL "thread")
  set(_san -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT KRTRACKER_SANITIZE STREQUAL "")
  message(FATAL_ERROR "KRTRACKER_SANITIZE must be empty, 'address' or 'thread'")
endif()

# Fuzz builds: every library carries coverage for libFuzzer and the address and
# undefined-behaviour sanitizers; the fuzz targets add the fuzzer's own main.
if(KRTRACKER_BUILD_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "KRTRACKER_BUILD_FUZZ needs clang: configure with CC=clang CXX=clang++")
  endif()
  if(_san)
    message(FATAL_ERROR "KRTRACKER_BUILD_FUZZ chooses its own sanitizers: leave KRTRACKER_SANITIZE empty")
  endif()
  set(_san -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined
           -fno-omit-frame-pointer)
endif()
if(_san)
  target_compile_options(krtracker_options INTERFACE ${_san})
  target_link_options(krtracker_options INTERFACE ${_san})
endif()
# The address and thread sanitizer builds look for faults, not speed: -O1 keeps their reports
# exact and line tables (-g1) name every frame; both together halve the build time of -O2 -g.
if(NOT KRTRACKER_SANITIZE STREQUAL "")
  target_compile_options(krtracker_options INTERFACE -O1 -g1)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC's manual warns that sanitizers raise false warnings: here uninitialised reads that do
    # not happen, and a free() said to mismatch the replaced operator new of the allocation
    # test. Its dynamic-type checks (vptr) also misread a spilled `this` after a caught
    # exception, reporting a stack-buffer-underflow that is not there. Clang keeps all three.
    target_compile_options(krtracker_options INTERFACE -Wno-maybe-uninitialized
                           $<$<COMPILE_LANGUAGE:CXX>:-Wno-mismatched-new-delete>)
    if(KRTRACKER_SANITIZE STREQUAL "address")
      target_compile_options(krtracker_options INTERFACE -fno-sanitize=vptr)
      target_link_options(krtracker_options INTERFACE -fno-sanitize=vptr)
    endif()
  endif()
endif()
