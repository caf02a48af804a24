# Run with cmake -P; see CMakeLists.txt beside this file.
set(prefix "${WORK_DIR}/prefix")
file(REMOVE_RECURSE "${WORK_DIR}")

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${output}")
  endif()
  set(last_output "${output}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")

foreach(expected
    lib/libkorcommon.so lib/libdovalib.so
    lib/cmake/korcommon/korcommonConfig.cmake lib/cmake/korcommon/korcommonConfigVersion.cmake
    lib/pkgconfig/korcommon.pc
    include/korcommon/utils.h include/dova/json/reader.h include/dova/param.h)
  if(NOT EXISTS "${prefix}/${expected}")
    message(FATAL_ERROR "not installed: ${expected}")
  endif()
endforeach()

# Only the services' API; the library's internal headers are not installed.
file(GLOB installed_service_headers RELATIVE "${prefix}/include/korcommon"
  "${prefix}/include/korcommon/*")
list(SORT installed_service_headers)
if(NOT installed_service_headers STREQUAL "Diagnostics.h;ImptData.h;log.h;utils.h")
  message(FATAL_ERROR "include/korcommon holds ${installed_service_headers}")
endif()

# Libraries built with sanitizers need their runtime in the program itself.
set(sanitizer_flags "")
if(SANITIZERS)
  set(sanitizer_flags "-fsanitize=${SANITIZERS}")
endif()

# 1. CMake package.
run(${CMAKE_COMMAND} -S "${CONSUMER_DIR}" -B "${WORK_DIR}/cmake-build"
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    "-DCMAKE_CXX_FLAGS=${sanitizer_flags}")
run(${CMAKE_COMMAND} --build "${WORK_DIR}/cmake-build")
run("${WORK_DIR}/cmake-build/consumer")
message(STATUS "${last_output}")

# 2. pkg-config.
set(ENV{PKG_CONFIG_PATH} "${prefix}/lib/pkgconfig")
run(pkg-config --cflags --libs korcommon)
string(STRIP "${last_output}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(${CXX_COMPILER} ${sanitizer_flags} "${CONSUMER_DIR}/consumer.cpp" ${flags} "-Wl,-rpath,${prefix}/lib"
    -o "${WORK_DIR}/pkg-consumer")
run("${WORK_DIR}/pkg-consumer")
message(STATUS "${last_output}")
