# Installs the build tree BUILD_DIR to a fresh prefix under WORK_DIR, checks that the exported
# targets carry no warning or sanitizer flags, then configures, builds and runs the consumer
# project against the installed package.
#   cmake -DBUILD_DIR=... -DWORK_DIR=... -DCONSUMER_DIR=... [-DCONSUMER_FLAGS=...] -P this
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}")
  endif()
endfunction()

# Fails when one of files has text matching regex.
function(refuse_match files regex what)
  foreach(f ${files})
    file(READ ${f} text)
    if(text MATCHES "${regex}")
      message(FATAL_ERROR "${f} ${what}: ${CMAKE_MATCH_0}")
    endif()
  endforeach()
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# Internal headers are not part of the package.
file(GLOB_RECURSE internal_headers ${prefix}/include/*internal.h)
if(internal_headers)
  message(FATAL_ERROR "internal headers installed: ${internal_headers}")
endif()

file(GLOB_RECURSE exports ${prefix}/*/krtrackerTargets*.cmake)
if(NOT exports)
  message(FATAL_ERROR "no krtrackerTargets*.cmake under ${prefix}")
endif()
refuse_match("${exports}" "[ ;\"]-W[a-z]|-fsanitize|-fno-sanitize|krtracker_options"
  "exports build flags")

# A sanitized build installs sanitized static libraries: their consumer links the runtime.
run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/build -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_BUILD_TYPE=Release "-DCMAKE_CXX_FLAGS=${CONSUMER_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${CONSUMER_FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
file(GLOB_RECURSE flags ${WORK_DIR}/build/*/flags.make)
refuse_match("${flags}" "-Wall|-Wextra|-Wpedantic" "compiled the consumer with the project's warnings")
if(NOT flags)
  message(FATAL_ERROR "no flags.make in the consumer build: cannot check its flags")
endif()
run(${WORK_DIR}/build/consumer)
message(STATUS "installed to ${prefix}; consumer built and ran")
