# Installs the build tree to a temporary prefix, then builds and runs two
# consumers against it: one with find_package(qor 1.0 CONFIG), one with
# pkg-config. When the demo is part of the build (QOR_DEMO=ON), the installed
# qor-utils-demo then runs in a temporary folder and must leave a trace.json
# there that parses as JSON and that the installed qor-trace calls whole. Run
# as a ctest test in script mode (-P).
foreach(var QOR_SOURCE_DIR QOR_BINARY_DIR QOR_WORK_DIR QOR_GENERATOR QOR_CXX_COMPILER QOR_VERSION)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "${var} is not set")
  endif()
endforeach()

set(prefix ${QOR_WORK_DIR}/prefix)
file(REMOVE_RECURSE ${QOR_WORK_DIR})
file(MAKE_DIRECTORY ${QOR_WORK_DIR})

function(run_step what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
  message(STATUS "${what}: ok")
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run_step("install" ${CMAKE_COMMAND} --install ${QOR_BINARY_DIR} --prefix ${prefix})

if(NOT EXISTS ${prefix}/include/qor/Version.h)
  message(FATAL_ERROR "installed tree lacks include/qor/Version.h")
endif()
file(STRINGS ${prefix}/include/qor/Version.h version_line REGEX "define QOR_VERSION_STRING")
if(NOT version_line MATCHES "\"${QOR_VERSION}\"")
  message(FATAL_ERROR "installed Version.h does not say ${QOR_VERSION}: ${version_line}")
endif()

foreach(f include/qor/common/logging/Logger.h
          lib/libqor.common.so lib/libqor.nav.sdk.utils.so
          lib/cmake/qor/qorConfig.cmake lib/cmake/qor/qorConfigVersion.cmake
          lib/pkgconfig/qor-common.pc lib/pkgconfig/qor-nav-sdk-utils.pc)
  if(NOT EXISTS ${prefix}/${f})
    message(FATAL_ERROR "installed tree lacks ${f}")
  endif()
endforeach()

# CMake consumer.
set(cmake_build ${QOR_WORK_DIR}/cmake-consumer)
run_step("configure CMake consumer" ${CMAKE_COMMAND} -S ${QOR_SOURCE_DIR}/tests/install/consumer -B ${cmake_build}
  -G ${QOR_GENERATOR} -DCMAKE_CXX_COMPILER=${QOR_CXX_COMPILER} -DCMAKE_PREFIX_PATH=${prefix})
run_step("build CMake consumer" ${CMAKE_COMMAND} --build ${cmake_build})
run_step("run CMake consumer" ${cmake_build}/qor_consumer)
if(NOT last_output MATCHES "consumer ok")
  message(FATAL_ERROR "CMake consumer printed:\n${last_output}")
endif()

# A version the package does not satisfy must be refused.
execute_process(COMMAND ${CMAKE_COMMAND} -S ${QOR_SOURCE_DIR}/tests/install/consumer -B ${QOR_WORK_DIR}/too-new
  -G ${QOR_GENERATOR} -DCMAKE_CXX_COMPILER=${QOR_CXX_COMPILER} -DCMAKE_PREFIX_PATH=${prefix} -DQOR_REQUIRED_VERSION=99.0
  RESULT_VARIABLE rc OUTPUT_QUIET ERROR_QUIET)
if(rc EQUAL 0)
  message(FATAL_ERROR "find_package(qor 99.0) succeeded against the installed version")
endif()

# pkg-config consumer.
find_program(PKG_CONFIG pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
run_step("pkg-config flags" ${PKG_CONFIG} --cflags --libs qor-nav-sdk-utils)
string(STRIP "${last_output}" pc_flags)
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
run_step("build pkg-config consumer" ${QOR_CXX_COMPILER} -std=c++17 ${QOR_SOURCE_DIR}/tests/install/consumer/main.cpp
  -o ${QOR_WORK_DIR}/pc_consumer ${pc_flags} -Wl,-rpath,${prefix}/lib)
run_step("run pkg-config consumer" ${QOR_WORK_DIR}/pc_consumer)
if(NOT last_output MATCHES "consumer ok")
  message(FATAL_ERROR "pkg-config consumer printed:\n${last_output}")
endif()

# The installed demo, run as a user would: from a fresh folder, no arguments.
if(QOR_DEMO)
  set(demo ${prefix}/bin/qor-utils-demo)
  if(NOT EXISTS ${demo})
    message(FATAL_ERROR "installed tree lacks bin/qor-utils-demo")
  endif()
  # It must find the installed libraries, not those of the build tree.
  find_program(LDD ldd)
  if(LDD)
    run_step("ldd qor-utils-demo" ${LDD} ${demo})
    if(NOT last_output MATCHES "libqor.nav.sdk.utils.so[^\n]*=> ${prefix}/(bin/\\.\\./)?lib/")
      message(FATAL_ERROR "installed qor-utils-demo does not use the installed libraries:\n${last_output}")
    endif()
  endif()
  set(demo_dir ${QOR_WORK_DIR}/demo-run)
  file(MAKE_DIRECTORY ${demo_dir})
  execute_process(COMMAND ${demo} WORKING_DIRECTORY ${demo_dir} TIMEOUT 240
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "installed qor-utils-demo failed (${rc}):\n${out}\n${err}")
  endif()
  if(NOT out MATCHES "Summary \\(qor ${QOR_VERSION}\\)")
    message(FATAL_ERROR "installed qor-utils-demo does not print version ${QOR_VERSION}:\n${out}")
  endif()
  if(NOT EXISTS ${demo_dir}/trace.json)
    message(FATAL_ERROR "installed qor-utils-demo left no trace.json in ${demo_dir}:\n${out}")
  endif()
  find_program(PYTHON3 NAMES python3 REQUIRED)
  run_step("trace.json of the installed demo parses" ${PYTHON3} -m json.tool ${demo_dir}/trace.json)
  run_step("installed qor-trace checks it" ${prefix}/bin/qor-trace check ${demo_dir}/trace.json)
endif()
