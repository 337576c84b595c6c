# Installs the built library into a private prefix, then builds and runs a
# small consumer program against that prefix only, twice: as a CMake project
# using find_package(PellCommon_Orbel), and as one compiler command using
# pkg-config. Run by CTest with -DSOURCE_DIR=... -DBUILD_DIR=... -DWORK_DIR=...
cmake_minimum_required(VERSION 3.25)

foreach(var SOURCE_DIR BUILD_DIR WORK_DIR)
  if(NOT DEFINED ${var} OR "${${var}}" STREQUAL "")
    message(FATAL_ERROR "InstalledPackageTest: ${var} is not set")
  endif()
endforeach()

set(PREFIX "${WORK_DIR}/prefix")
set(CONSUMER_SRC "${SOURCE_DIR}/tests/install/consumer")
file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")

# Runs one step; stops the test with the step's output when it fails.
function(run_step name)
  execute_process(COMMAND ${ARGN}
    RESULT_VARIABLE rc
    OUTPUT_VARIABLE out
    ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "InstalledPackageTest: step '${name}' failed (${rc})\n"
                        "command: ${ARGN}\n${out}\n${err}")
  endif()
  message(STATUS "step '${name}' passed")
  set(STEP_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

# The compiler and generator of the tested build, so the consumer is built
# the same way.
function(read_cache_entry var name)
  file(STRINGS "${BUILD_DIR}/CMakeCache.txt" line REGEX "^${name}:[A-Z]+=")
  string(REGEX REPLACE "^${name}:[A-Z]+=" "" value "${line}")
  set(${var} "${value}" PARENT_SCOPE)
endfunction()
read_cache_entry(CXX CMAKE_CXX_COMPILER)
read_cache_entry(GENERATOR CMAKE_GENERATOR)
read_cache_entry(MAKE_PROGRAM CMAKE_MAKE_PROGRAM)
if(CXX STREQUAL "" OR GENERATOR STREQUAL "")
  message(FATAL_ERROR "InstalledPackageTest: cannot read ${BUILD_DIR}/CMakeCache.txt")
endif()

# --- install -------------------------------------------------------------
run_step(install "${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${PREFIX}")

file(GLOB_RECURSE installed_lib LIST_DIRECTORIES false "${PREFIX}/*/libPellCommon_Orbel.so")
list(LENGTH installed_lib n)
if(NOT n EQUAL 1)
  message(FATAL_ERROR "InstalledPackageTest: expected one libPellCommon_Orbel.so under "
                      "${PREFIX}, found: ${installed_lib}")
endif()
get_filename_component(LIBDIR "${installed_lib}" DIRECTORY)
foreach(f
    "${PREFIX}/include/PellCommon_Orbel/Orbel.h"
    "${PREFIX}/include/PellCommon_Orbel/ZLogPrint.h"
    "${PREFIX}/include/PellCommon_Orbel/proc_system.h"
    "${LIBDIR}/pkgconfig/PellCommon_Orbel.pc"
    "${LIBDIR}/cmake/PellCommon_Orbel/PellCommon_OrbelConfig.cmake")
  if(NOT EXISTS "${f}")
    message(FATAL_ERROR "InstalledPackageTest: ${f} was not installed")
  endif()
endforeach()

# Installed programs and libraries find each other through their run path
# relative to their own location ($ORIGIN), never through the build tree or
# LD_LIBRARY_PATH: every installed program below runs with it unset, and no
# installed ELF file may name the build tree.
set(RUN_ENV "${CMAKE_COMMAND}" -E env --unset=LD_LIBRARY_PATH
  "ORBEL_SYSROOT=${WORK_DIR}/sysroot")
file(MAKE_DIRECTORY "${WORK_DIR}/sysroot")
file(GLOB installed_elves "${PREFIX}/bin/*" "${LIBDIR}/*.so.*")
foreach(elf ${installed_elves})
  if(IS_SYMLINK "${elf}")
    continue()
  endif()
  run_step("readelf ${elf}" readelf -d "${elf}")
  if(NOT STEP_OUTPUT MATCHES "RUNPATH[^\n]*\\$ORIGIN")
    message(FATAL_ERROR "InstalledPackageTest: ${elf} has no $ORIGIN run path:\n${STEP_OUTPUT}")
  endif()
  string(FIND "${STEP_OUTPUT}" "${BUILD_DIR}" at)
  if(NOT at EQUAL -1)
    message(FATAL_ERROR "InstalledPackageTest: ${elf} names the build tree:\n${STEP_OUTPUT}")
  endif()
endforeach()
foreach(lib PellCommon_Orbel OrbelPlatformSim)
  if(NOT EXISTS "${LIBDIR}/lib${lib}.so.1")
    message(FATAL_ERROR "InstalledPackageTest: lib${lib}.so.1 (the versioned name) was not installed")
  endif()
endforeach()

# --- installed tools -------------------------------------------------------
run_step(sim-set ${RUN_ENV} "${PREFIX}/bin/orbel-sim" vex set nginx_redfish_ready true)
run_step(sim-get ${RUN_ENV} "${PREFIX}/bin/orbel-sim" vex get nginx_redfish_ready)
if(NOT STEP_OUTPUT STREQUAL "true\n")
  message(FATAL_ERROR "InstalledPackageTest: orbel-sim read back '${STEP_OUTPUT}'")
endif()
run_step(tree-help ${RUN_ENV} "${PREFIX}/bin/orbel-tree" --help)
if(NOT STEP_OUTPUT MATCHES "^Usage: orbel-tree")
  message(FATAL_ERROR "InstalledPackageTest: orbel-tree --help printed '${STEP_OUTPUT}'")
endif()

# --- find_package --------------------------------------------------------
set(CMAKE_CONSUMER "${WORK_DIR}/cmake-consumer")
set(generator_args -G "${GENERATOR}")
if(NOT MAKE_PROGRAM STREQUAL "")
  list(APPEND generator_args "-DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM}")
endif()
run_step(cmake-configure "${CMAKE_COMMAND}" -S "${CONSUMER_SRC}" -B "${CMAKE_CONSUMER}"
  ${generator_args}
  "-DCMAKE_CXX_COMPILER=${CXX}"
  "-DCMAKE_PREFIX_PATH=${PREFIX}"
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
  -DCMAKE_BUILD_TYPE=Release)
file(STRINGS "${CMAKE_CONSUMER}/CMakeCache.txt" found_dir REGEX "^PellCommon_Orbel_DIR:")
string(REGEX REPLACE "^PellCommon_Orbel_DIR:[A-Z]+=" "" found_dir "${found_dir}")
string(FIND "${found_dir}" "${PREFIX}/" at)
if(NOT at EQUAL 0)
  message(FATAL_ERROR "InstalledPackageTest: find_package used '${found_dir}', "
                      "not the package under ${PREFIX}")
endif()
run_step(cmake-build "${CMAKE_COMMAND}" --build "${CMAKE_CONSUMER}")
run_step(cmake-run ${RUN_ENV} "${CMAKE_CONSUMER}/consumer")
if(NOT STEP_OUTPUT MATCHES "consumer: all checks passed")
  message(FATAL_ERROR "InstalledPackageTest: consumer output: ${STEP_OUTPUT}")
endif()

# --- the test kit: a plug-in's test against the installed kit and front end
if(EXISTS "${PREFIX}/bin/orbel-frontend")
  if(NOT EXISTS "${CMAKE_CONSUMER}/kit_test")
    message(FATAL_ERROR "InstalledPackageTest: the package has orbel-frontend but the "
                        "consumer found no OrbelTestKit to build kit_test with")
  endif()
  # No override: the kit must find the installed front end and registries
  # beside itself.
  run_step(kit-test "${CMAKE_COMMAND}" -E env --unset=LD_LIBRARY_PATH
    --unset=ORBEL_TESTKIT_FRONTEND --unset=ORBEL_TESTKIT_REGISTRIES "${CMAKE_CONSUMER}/kit_test")
  if(NOT STEP_OUTPUT MATCHES "PASSED  \] 1 test")
    message(FATAL_ERROR "InstalledPackageTest: kit_test output: ${STEP_OUTPUT}")
  endif()
endif()

# --- the installed samples, built outside the tree: two plug-ins in one store
foreach(f doc/plugin-guide.md doc/templates.md examples/CMakeLists.txt
          examples/RF_Chassis/templates/chassis.keep)
  if(NOT EXISTS "${PREFIX}/share/PellCommon_Orbel/${f}")
    message(FATAL_ERROR "InstalledPackageTest: share/PellCommon_Orbel/${f} was not installed")
  endif()
endforeach()
foreach(f include/PellCommon_Orbel/StoreTreeReader.h "${LIBDIR}/libOrbelTreeReader.a")
  if(NOT IS_ABSOLUTE "${f}")
    set(f "${PREFIX}/${f}")
  endif()
  if(NOT EXISTS "${f}")
    message(FATAL_ERROR "InstalledPackageTest: ${f} was not installed")
  endif()
endforeach()
set(SAMPLES_BUILD "${WORK_DIR}/samples")
run_step(samples-configure "${CMAKE_COMMAND}" -S "${PREFIX}/share/PellCommon_Orbel/examples"
  -B "${SAMPLES_BUILD}" ${generator_args}
  "-DCMAKE_CXX_COMPILER=${CXX}"
  "-DCMAKE_PREFIX_PATH=${PREFIX}"
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
  -DCMAKE_BUILD_TYPE=Release)
run_step(samples-build "${CMAKE_COMMAND}" --build "${SAMPLES_BUILD}")
if(EXISTS "${PREFIX}/bin/orbel-frontend")
  run_step(two-plugins bash "${SOURCE_DIR}/tests/install/TwoPlugins.sh" "${PREFIX}"
    "${SAMPLES_BUILD}" "${SOURCE_DIR}/tests/data/dmtf" "${WORK_DIR}")
  if(NOT STEP_OUTPUT MATCHES "TwoPlugins: all checks passed")
    message(FATAL_ERROR "InstalledPackageTest: two plug-ins: ${STEP_OUTPUT}")
  endif()
endif()

# --- pkg-config ----------------------------------------------------------
set(ENV{PKG_CONFIG_PATH} "${LIBDIR}/pkgconfig")
run_step(pkg-config pkg-config --cflags --libs PellCommon_Orbel)
string(STRIP "${STEP_OUTPUT}" pc_text)
separate_arguments(pc_flags UNIX_COMMAND "${pc_text}")
# The package's own -I and -L must lead into the prefix (the .pc file may
# spell them relative to its own directory).
set(pc_dirs "")
foreach(flag ${pc_flags})
  if(flag MATCHES "^-[IL](.+)$")
    get_filename_component(dir "${CMAKE_MATCH_1}" REALPATH)
    list(APPEND pc_dirs "${dir}")
  endif()
endforeach()
get_filename_component(want_include "${PREFIX}/include/PellCommon_Orbel" REALPATH)
get_filename_component(want_lib "${LIBDIR}" REALPATH)
foreach(expected "${want_include}" "${want_lib}")
  if(NOT expected IN_LIST pc_dirs)
    message(FATAL_ERROR "InstalledPackageTest: pkg-config gave '${pc_text}', "
                        "with no flag leading to '${expected}'")
  endif()
endforeach()
set(PC_CONSUMER "${WORK_DIR}/pkgconfig-consumer")
# A pkg-config user names the library directory as the program's run path
# (or installs into a directory the loader searches); the library finds its
# own dependencies from there.
run_step(pkgconfig-build "${CXX}" -std=c++17 -Wall -Wextra -Werror "${CONSUMER_SRC}/main.cpp"
  ${pc_flags} "-Wl,-rpath,${LIBDIR}" -o "${PC_CONSUMER}")
run_step(pkgconfig-run ${RUN_ENV} "${PC_CONSUMER}")
if(NOT STEP_OUTPUT MATCHES "consumer: all checks passed")
  message(FATAL_ERROR "InstalledPackageTest: consumer output: ${STEP_OUTPUT}")
endif()
