# libkab(3) and its like from the headers' comments, where Doxygen and Python are there to make them.
find_package(Doxygen QUIET)
find_package(Python3 COMPONENTS Interpreter QUIET)
if(NOT DOXYGEN_FOUND OR NOT Python3_FOUND)
  message(STATUS "libkab(3) is not made: it takes Doxygen and Python 3")
  return()
endif()

set(KAB_DOC_DIR ${PROJECT_BINARY_DIR}/doc)
configure_file(docs/Doxyfile.in ${KAB_DOC_DIR}/Doxyfile @ONLY)
file(GLOB headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/kab/*.h)
add_custom_command(OUTPUT ${KAB_DOC_DIR}/man3/libkab.3
  COMMAND Doxygen::doxygen ${KAB_DOC_DIR}/Doxyfile
  COMMAND Python3::Interpreter ${PROJECT_SOURCE_DIR}/scripts/header-pages ${KAB_DOC_DIR}/xml
    ${PROJECT_SOURCE_DIR}/include/kab ${KAB_DOC_DIR}/man3 ${PROJECT_VERSION}
  DEPENDS ${headers} ${KAB_DOC_DIR}/Doxyfile ${PROJECT_SOURCE_DIR}/scripts/header-pages
  COMMENT "Making libkab(3)" VERBATIM)
add_custom_target(doc ALL DEPENDS ${KAB_DOC_DIR}/man3/libkab.3)
install(DIRECTORY ${KAB_DOC_DIR}/man3 DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT dev)
