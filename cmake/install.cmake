# SPDX-License-Identifier: Apache-2.0
# What 'cmake --install' lays out: library, headers, pkg-config file, CMake package, manual pages.
include(CMakePackageConfigHelpers)

set(_headers ${CMAKE_INSTALL_INCLUDEDIR}/qor_bus)
set(_package ${CMAKE_INSTALL_LIBDIR}/cmake/qor_bus)
file(GLOB _public_headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/*.h)

install(TARGETS qor_bus EXPORT qor_bus
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
if(TARGET qor_bus_static)
  install(TARGETS qor_bus_static EXPORT qor_bus ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()
install(FILES ${_public_headers} ${PROJECT_SOURCE_DIR}/src/hal/linux/qor_hal.h
  ${PROJECT_SOURCE_DIR}/include/qor.hpp DESTINATION ${_headers})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/qor DESTINATION ${_headers})

# Relative to the file itself, so that the installed tree can be moved.
file(RELATIVE_PATH _to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" _to_prefix ${_to_prefix})
configure_file(cmake/libqor_bus.pc.in libqor_bus.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/libqor_bus.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(EXPORT qor_bus NAMESPACE qor_bus:: FILE qor_bus-targets.cmake DESTINATION ${_package})
configure_package_config_file(cmake/qor_bus-config.cmake.in qor_bus-config.cmake
  INSTALL_DESTINATION ${_package})
write_basic_package_version_file(qor_bus-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qor_bus-config.cmake
  ${PROJECT_BINARY_DIR}/qor_bus-config-version.cmake DESTINATION ${_package})

# A page for each name that a page has: those without one of their own refer to it.
file(GLOB _pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/*.[37])
foreach(_page IN LISTS _pages)
  get_filename_component(_title ${_page} NAME)
  string(REGEX MATCH "[37]$" _section ${_title})
  file(STRINGS ${_page} _names REGEX "^\\.Nm ")
  list(TRANSFORM _names REPLACE "^\\.Nm ([^ ]+).*" "\\1.${_section}")
  list(REMOVE_ITEM _names ${_title})
  foreach(_name IN LISTS _names)
    file(GENERATE OUTPUT man/${_name} CONTENT ".so man${_section}/${_title}\n")
    list(APPEND _pages ${PROJECT_BINARY_DIR}/man/${_name})
  endforeach()
endforeach()
foreach(_section IN ITEMS 3 7)
  set(_of_section ${_pages})
  list(FILTER _of_section INCLUDE REGEX "[.]${_section}$")
  install(FILES ${_of_section} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${_section} COMPONENT doc)
endforeach()
