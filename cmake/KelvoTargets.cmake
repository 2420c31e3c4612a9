# One target per folder. Each folder names the targets it builds on with DEPENDS; the build links
# them and allows includes from their folders (and, through them, from the folders they build on)
# and from nowhere else: cmake/CheckLayering.cmake fails the build on any other include.

# kelvo_library(NAME SOURCES ... [DEPENDS kelvo targets...] [LINK other libraries...]
#               [PRIVATE_LINK ...] [QT_FREE])
# QT_FREE: the folder may not include Qt (the helper daemon and the tools link it alone).
function(kelvo_library name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "QT_FREE" "" "SOURCES;DEPENDS;LINK;PRIVATE_LINK")
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_DEPENDS} ${ARG_LINK} PRIVATE kelvo_warnings ${ARG_PRIVATE_LINK})
  if(ARG_QT_FREE)
    set_target_properties(${name} PROPERTIES AUTOMOC OFF)
  endif()
  kelvo_layer(${name} DEPENDS ${ARG_DEPENDS})
  if(ARG_QT_FREE)
    file(RELATIVE_PATH folder ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
    set_property(GLOBAL APPEND PROPERTY KELVO_QT_FREE_FOLDERS ${folder})
  endif()
endfunction()

# Records that the current folder (or FOLDER, relative to the source tree) builds TARGET on
# DEPENDS (kelvo targets only). Executables and test folders call it too, so their includes are
# held to the same rule.
function(kelvo_layer target)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "FOLDER" "DEPENDS")
  if(ARG_FOLDER)
    set(folder ${ARG_FOLDER})
  else()
    file(RELATIVE_PATH folder ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
  endif()
  set_property(GLOBAL PROPERTY KELVO_FOLDER_OF_${target} ${folder})
  set_property(GLOBAL APPEND PROPERTY KELVO_TARGET_DEPENDS_${target} ${ARG_DEPENDS})
  get_property(folders GLOBAL PROPERTY KELVO_LAYER_FOLDERS)
  if(NOT folder IN_LIST folders)
    set_property(GLOBAL APPEND PROPERTY KELVO_LAYER_FOLDERS ${folder})
  endif()
  set_property(GLOBAL APPEND PROPERTY KELVO_FOLDER_TARGETS_${folder} ${target})
endfunction()

# Every .cpp in a folder belongs to one of its targets: a file left off the explicit lists would
# silently stop being built.
function(kelvo_check_listed_sources folder targets)
  if(folder MATCHES "^tests/")
    return()
  endif()
  set(listed "")
  foreach(t IN LISTS targets)
    if(TARGET ${t})
      get_target_property(t_sources ${t} SOURCES)
      foreach(source IN LISTS t_sources)
        get_filename_component(name ${source} NAME)
        list(APPEND listed ${name})
      endforeach()
    endif()
  endforeach()
  file(GLOB on_disk RELATIVE ${PROJECT_SOURCE_DIR}/${folder} ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
  foreach(name IN LISTS on_disk)
    if(NOT name IN_LIST listed)
      message(FATAL_ERROR "${folder}/${name} is in no target's source list (${targets})")
    endif()
  endforeach()
endfunction()

# After every folder is added: writes, for each folder, the folders it may include from, and adds
# the check to the default build.
function(kelvo_layering_check)
  get_property(folders GLOBAL PROPERTY KELVO_LAYER_FOLDERS)
  get_property(qt_free GLOBAL PROPERTY KELVO_QT_FREE_FOLDERS)
  set(map "")
  set(sources "")
  foreach(folder IN LISTS folders)
    get_property(targets GLOBAL PROPERTY KELVO_FOLDER_TARGETS_${folder})
    # The folders reachable through DEPENDS, transitively.
    set(allowed "")
    set(pending ${targets})
    set(seen "")
    while(pending)
      list(POP_FRONT pending t)
      if(t IN_LIST seen)
        continue()
      endif()
      list(APPEND seen ${t})
      get_property(t_folder GLOBAL PROPERTY KELVO_FOLDER_OF_${t})
      if(t_folder AND NOT t_folder STREQUAL folder)
        list(APPEND allowed ${t_folder})
      endif()
      get_property(deps GLOBAL PROPERTY KELVO_TARGET_DEPENDS_${t})
      list(APPEND pending ${deps})
    endwhile()
    list(REMOVE_DUPLICATES allowed)
    kelvo_check_listed_sources(${folder} "${targets}")
    if(folder IN_LIST allowed)
      message(FATAL_ERROR "layering: ${folder} depends on itself through ${allowed}")
    endif()
    set(flag "qt")
    if(folder IN_LIST qt_free)
      set(flag "qt-free")
    endif()
    string(REPLACE ";" "," allowed_text "${allowed}")
    string(APPEND map "${folder}|${flag}|${allowed_text}\n")
    file(GLOB folder_sources ${PROJECT_SOURCE_DIR}/${folder}/*.h ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
    list(APPEND sources ${folder_sources})
  endforeach()
  file(WRITE ${PROJECT_BINARY_DIR}/layering.map "${map}")
  add_custom_command(
    OUTPUT ${PROJECT_BINARY_DIR}/layering.ok
    COMMAND ${CMAKE_COMMAND} -DROOT=${PROJECT_SOURCE_DIR} -DMAP=${PROJECT_BINARY_DIR}/layering.map
            -P ${PROJECT_SOURCE_DIR}/cmake/CheckLayering.cmake
    COMMAND ${CMAKE_COMMAND} -E touch ${PROJECT_BINARY_DIR}/layering.ok
    DEPENDS ${sources} ${PROJECT_BINARY_DIR}/layering.map ${PROJECT_SOURCE_DIR}/cmake/CheckLayering.cmake
    COMMENT "Checking that no include goes up or sideways"
    VERBATIM)
  add_custom_target(kelvo_layering ALL DEPENDS ${PROJECT_BINARY_DIR}/layering.ok)
endfunction()
