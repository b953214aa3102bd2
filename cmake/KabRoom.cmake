# A room is a folder of src/ with a place in the floor plan (docs/architecture.md). It is compiled once, and linked
# once on its own against the rooms below it, so that a call upward does not link:
#
#   kab_room(ssdlog USES ddp dump zoltcommon/ds)
#
# Rooms named by USES bring the rooms they use themselves.

set(KAB_ROOM_LIBRARIES ZLIB::ZLIB kab_lz4 OpenSSL::Crypto kab_isal kab_keyutils)
set_property(GLOBAL PROPERTY KAB_ROOMS "")

function(kab_room room)
  cmake_parse_arguments(ARG "" "" "USES" ${ARGN})
  string(REPLACE "/" "_" name "room_${room}")
  file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/${room}/*.cc)
  if(NOT sources)
    set_property(GLOBAL PROPERTY KAB_ROOM_USES_${room} "${ARG_USES}")
    return()
  endif()
  add_library(${name} OBJECT ${sources})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/include)
  target_link_libraries(${name} PRIVATE kab_private_options ${KAB_ROOM_LIBRARIES})

  set(below ${ARG_USES})
  foreach(used IN LISTS ARG_USES)
    get_property(theirs GLOBAL PROPERTY KAB_ROOM_USES_${used})
    list(APPEND below ${theirs})
  endforeach()
  list(REMOVE_DUPLICATES below)
  set_property(GLOBAL PROPERTY KAB_ROOM_USES_${room} "${below}")
  set_property(GLOBAL APPEND PROPERTY KAB_ROOMS ${name})

  if(KAB_LINK_CHECK)
    set(objects $<TARGET_OBJECTS:${name}>)
    foreach(used IN LISTS below)
      string(REPLACE "/" "_" usedName "room_${used}")
      if(TARGET ${usedName})
        list(APPEND objects $<TARGET_OBJECTS:${usedName}>)
      endif()
    endforeach()
    add_library(${name}_alone SHARED ${objects})
    set_target_properties(${name}_alone PROPERTIES LINKER_LANGUAGE CXX
      LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/rooms)
    target_link_libraries(${name}_alone PRIVATE ${KAB_ROOM_LIBRARIES})
    target_link_options(${name}_alone PRIVATE -Wl,-z,defs)
  endif()
endfunction()
