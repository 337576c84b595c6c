# Fails when a source of the library includes a header of a higher layer.
#
#   cmake -DSOURCE_DIR=<tree> -P LayerCheck.cmake
#
# Layers, bottom to top (0 is the platform's C interfaces) (a file's layer is that of the class it holds: the
# name up to the first '_' or '.', so ZObject_RedisCache.cpp is ZObject's):
#   1 helpers and the log service, 2 the store client, 3 the node model,
#   4 everything else (application, schemas, requests, tasks, events).
# A header never reaches up. A .cpp may, but only through the forced ties
# listed in ALLOWED below; docs/layers.md says why each one exists.
cmake_minimum_required(VERSION 3.25)
set(LAYER_1 OrbelDefs Orbel FixedPaths ZLogPrint)
set(LAYER_2 RedisCli)
set(LAYER_3 ZObject ZJsonObject ZJsonArray ZResource ZResourceCollection)

# <file>:<included header>
set(ALLOWED
  # node <-> registry: OIDs, validity, the object list and the recycle queue
  ZObject.cpp:ZApplication.h
  ZObject_RedisCache.cpp:ZApplication.h
  ZObject_Removal.cpp:ZApplication.h
  ZJsonArray.cpp:ZApplication.h
  ZResource.cpp:ZApplication.h
  ZResourceCollection.cpp:ZApplication.h
  # resource <-> schema: channels, method flags, the owning schema
  ZResource.cpp:ZSchema.h
  ZResourceCollection.cpp:ZSchema.h
  # the action writer asks the owning schema's task flag
  ZObject_Writes.cpp:ZSchema.h
)

function(layer_of name out)
  string(REGEX REPLACE "[_.].*$" "" stem "${name}")
  foreach(level 0 1 2 3)
    if(stem IN_LIST LAYER_${level})
      set(${out} ${level} PARENT_SCOPE)
      return()
    endif()
  endforeach()
  set(${out} 4 PARENT_SCOPE)
endfunction()

if(NOT SOURCE_DIR)
  message(FATAL_ERROR "LayerCheck: SOURCE_DIR is not set")
endif()
# Layer 0: the platform's C interfaces, below everything.
file(GLOB platform_headers RELATIVE "${SOURCE_DIR}/platform/include"
     "${SOURCE_DIR}/platform/include/*.h")
set(LAYER_0 "")
foreach(h ${platform_headers})
  string(REGEX REPLACE "[_.].*$" "" stem "${h}")
  list(APPEND LAYER_0 "${stem}")
endforeach()
file(GLOB sources "${SOURCE_DIR}/Common/*.h" "${SOURCE_DIR}/Common/*.cpp"
                  "${SOURCE_DIR}/Common/core/*.h" "${SOURCE_DIR}/Common/core/*.cpp")
if(NOT sources)
  message(FATAL_ERROR "LayerCheck: no sources under ${SOURCE_DIR}/Common")
endif()
set(faults "")
set(used_ties "")
foreach(path ${sources})
  get_filename_component(file "${path}" NAME)
  layer_of("${file}" own)
  file(STRINGS "${path}" lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
  foreach(line ${lines})
    string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*\"([^\"]+)\".*$" "\\1" header "${line}")
    get_filename_component(header "${header}" NAME)
    layer_of("${header}" theirs)
    if(theirs LESS_EQUAL own)
      continue()
    endif()
    if(file MATCHES "\\.cpp$" AND "${file}:${header}" IN_LIST ALLOWED)
      list(APPEND used_ties "${file}:${header}")
      continue()
    endif()
    string(APPEND faults "  ${file} (layer ${own}) includes ${header} (layer ${theirs})\n")
  endforeach()
endforeach()
if(faults)
  message(FATAL_ERROR "Upward includes outside the forced ties (docs/layers.md):\n${faults}")
endif()
# A tie nobody needs any more is dropped, so the list stays the truth.
foreach(tie ${ALLOWED})
  if(NOT tie IN_LIST used_ties)
    message(FATAL_ERROR "Forced tie ${tie} is no longer used: remove it from the list "
                        "and from docs/layers.md")
  endif()
endforeach()
list(LENGTH sources count)
message(STATUS "LayerCheck: ${count} files, every upward include is a listed tie")
