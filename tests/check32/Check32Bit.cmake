# Compiles every source of the library, the simulated platform and the tools
# for a 32-bit target (-m32: `long` and pointers of 32 bits, as on the
# controller), with the project's warnings as errors. Only the front end runs
# (-fsyntax-only), which is where printf conversions and narrowing are
# checked, so no 32-bit libraries are needed.
#
# Inputs: SOURCE_DIR, CXX.
file(GLOB_RECURSE sources
  "${SOURCE_DIR}/Common/*.cpp"
  "${SOURCE_DIR}/platform/sim/*.cpp"
  "${SOURCE_DIR}/tools/*.cpp"
  "${SOURCE_DIR}/examples/*.cpp")
execute_process(COMMAND pkg-config --cflags-only-I hiredis
  OUTPUT_VARIABLE hiredis_flags OUTPUT_STRIP_TRAILING_WHITESPACE)
separate_arguments(hiredis_flags UNIX_COMMAND "${hiredis_flags}")
set(failed 0)
foreach(src ${sources})
  execute_process(
    COMMAND "${CXX}" -m32 -fsyntax-only -std=c++17 -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64
            -Wall -Wextra -Wformat=2 -Wformat-security -Werror
            -DORBEL_VERSION="check32"
            -I${SOURCE_DIR}/Common -I${SOURCE_DIR}/Common/core
            -I${SOURCE_DIR}/platform/include -I${SOURCE_DIR}/platform/sim/lib
            -I${SOURCE_DIR}/tools/treereader ${hiredis_flags}
            "${src}"
    RESULT_VARIABLE rc
    ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(SEND_ERROR "32-bit check failed for ${src}:\n${err}")
    set(failed 1)
  endif()
endforeach()
list(LENGTH sources count)
if(failed)
  message(FATAL_ERROR "Check32Bit: some sources do not compile for a 32-bit target")
endif()
message(STATUS "Check32Bit: ${count} sources compile cleanly with -m32")
