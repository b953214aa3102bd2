# What `make install` puts where, for find_package(kab), pkg-config, Python and man.
# Components: runtime (the shared library), dev, tool, python, doc.

include(CMakePackageConfigHelpers)
set(KAB_PYTHON_DIR "lib/python3/dist-packages" CACHE STRING "Where the Python package goes, below the prefix")

install(TARGETS kab EXPORT kab-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
install(DIRECTORY include/kab DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev FILES_MATCHING PATTERN "*.h")

set(KAB_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kab)
install(EXPORT kab-targets NAMESPACE kab:: DESTINATION ${KAB_CONFIG_DIR} COMPONENT dev)
configure_package_config_file(cmake/kab-config.cmake.in ${PROJECT_BINARY_DIR}/kab-config.cmake
  INSTALL_DESTINATION ${KAB_CONFIG_DIR})
# Until 1.0 a new minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kab-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kab-config.cmake ${PROJECT_BINARY_DIR}/kab-config-version.cmake
  DESTINATION ${KAB_CONFIG_DIR} COMPONENT dev)

# Relative to where kab.pc itself lies, so that an installed tree may be moved; a libdir outside the prefix stays as
# it was given.
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR} OR IS_ABSOLUTE ${CMAKE_INSTALL_INCLUDEDIR})
  set(PC_PREFIX ${CMAKE_INSTALL_PREFIX})
  set(PC_LIBDIR ${CMAKE_INSTALL_FULL_LIBDIR})
  set(PC_INCLUDEDIR ${CMAKE_INSTALL_FULL_INCLUDEDIR})
else()
  file(RELATIVE_PATH up /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
  string(REGEX REPLACE "/$" "" up "${up}")
  set(PC_PREFIX "\${pcfiledir}/${up}")
  set(PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  set(PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(cmake/kab.pc.in ${PROJECT_BINARY_DIR}/kab.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kab.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

install(FILES docs/man/kab-dump.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT tool)
# In the places that they have in the source, so that links from one to another lead somewhere.
install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc)
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc
  FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.json" PATTERN "man" EXCLUDE)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc)
install(DIRECTORY python/kab DESTINATION ${KAB_PYTHON_DIR} COMPONENT python
  FILES_MATCHING PATTERN "*.py" PATTERN "py.typed" PATTERN "__pycache__" EXCLUDE)

# cmake --build build --target package: all of it as a tarball that may be unpacked anywhere.
set(CPACK_GENERATOR TXZ)
set(CPACK_PACKAGE_FILE_NAME kab-${PROJECT_VERSION}-${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR})
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
include(CPack)
