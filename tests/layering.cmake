# Fails when a file includes a header of a layer above its own, or an engine includes another
# engine (the feed excepted: the others read its format). Run: cmake -DSOURCE_DIR=. -P this.
set(layers
  "dsstore" 0
  "core/support" 0
  "core/process" 1
  "core/records" 2
  "core/profile" 3
  "core/feed" 4
  "core/xcode" 5
  "core/signing" 5
  "core/dmg" 5
  "core/publishing" 5
  "core/pipeline" 6
  "core/demo" 7
  "cli" 8
  "app" 8)

# Sets LAYER and RANK for a path inside the source tree (empty LAYER: not a layered folder).
function(layer_of path)
  set(LAYER "" PARENT_SCOPE)
  list(LENGTH layers count)
  math(EXPR last "${count} - 1")
  foreach(index RANGE 0 ${last} 2)
    list(GET layers ${index} name)
    math(EXPR next "${index} + 1")
    list(GET layers ${next} rank)
    if(path MATCHES "^${name}/")
      set(LAYER "${name}" PARENT_SCOPE)
      set(RANK ${rank} PARENT_SCOPE)
      return()
    endif()
  endforeach()
endfunction()

get_filename_component(SOURCE_DIR "${SOURCE_DIR}" ABSOLUTE)
file(GLOB_RECURSE sources RELATIVE "${SOURCE_DIR}"
  "${SOURCE_DIR}/core/*.h" "${SOURCE_DIR}/core/*.cpp" "${SOURCE_DIR}/core/*.mm"
  "${SOURCE_DIR}/cli/*.h" "${SOURCE_DIR}/cli/*.cpp"
  "${SOURCE_DIR}/app/*.h" "${SOURCE_DIR}/app/*.cpp" "${SOURCE_DIR}/app/*.mm"
  "${SOURCE_DIR}/dsstore/*.h" "${SOURCE_DIR}/dsstore/*.cpp")
set(problems "")
set(checked 0)
foreach(source IN LISTS sources)
  layer_of("${source}")
  set(own "${LAYER}")
  set(ownRank "${RANK}")
  if(own STREQUAL "")
    continue()
  endif()
  file(STRINGS "${SOURCE_DIR}/${source}" includes REGEX "^[ \t]*#[ \t]*(include|import)[ \t]*\"")
  foreach(line IN LISTS includes)
    string(REGEX REPLACE "^[^\"]*\"([^\"]+)\".*$" "\\1" header "${line}")
    if(NOT header MATCHES "/")
      continue() # beside the file, in its own folder
    endif()
    math(EXPR checked "${checked} + 1")
    layer_of("${header}")
    if(LAYER STREQUAL "" OR LAYER STREQUAL own)
      continue()
    endif()
    if(own STREQUAL "dsstore")
      string(APPEND problems "${source} includes ${header}: dsstore depends on nothing of Veltra\n")
    elseif(RANK GREATER ownRank)
      string(APPEND problems "${source} includes ${header}: ${own} is below ${LAYER}\n")
    elseif(RANK EQUAL ownRank)
      string(APPEND problems "${source} includes ${header}: ${own} and ${LAYER} are side by side\n")
    endif()
  endforeach()
endforeach()
if(NOT problems STREQUAL "")
  message(FATAL_ERROR "Includes that break the layers:\n${problems}")
endif()
message(STATUS "${checked} includes across folders, all downwards")
