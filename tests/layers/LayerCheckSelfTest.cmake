# The layer check must fail on a tree where a node-model header reaches up:
# copies the library's sources, adds one upward include, runs the check.
#   cmake -DSOURCE_DIR=<tree> -DWORK_DIR=<scratch> -P LayerCheckSelfTest.cmake
cmake_minimum_required(VERSION 3.25)
file(REMOVE_RECURSE "${WORK_DIR}")
file(COPY "${SOURCE_DIR}/Common" DESTINATION "${WORK_DIR}")
file(COPY "${SOURCE_DIR}/platform/include" DESTINATION "${WORK_DIR}/platform")
# The copy as it is passes; only the added include may fail it.
execute_process(
  COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${WORK_DIR} -P ${CMAKE_CURRENT_LIST_DIR}/LayerCheck.cmake
  RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "LayerCheck fails on the unchanged copy:\n${err}")
endif()
file(APPEND "${WORK_DIR}/Common/core/ZObject.h" "#include \"ZSchema.h\"\n")
execute_process(
  COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${WORK_DIR} -P ${CMAKE_CURRENT_LIST_DIR}/LayerCheck.cmake
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(rc EQUAL 0)
  message(FATAL_ERROR "LayerCheck accepted ZObject.h including ZSchema.h")
endif()
if(NOT err MATCHES "ZObject.h \\(layer 3\\) includes ZSchema.h \\(layer 4\\)")
  message(FATAL_ERROR "LayerCheck failed for another reason:\n${err}")
endif()
file(REMOVE_RECURSE "${WORK_DIR}")
