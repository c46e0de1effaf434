# Installs the library, its headers, and what CMake and pkg-config need to find them.
include(CMakePackageConfigHelpers)
set(VSUPT_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/VarnSupport)
# Found from where vsupt.pc is, so that the prefix may be moved. The system's own is not, and
# pkg-config leaves out its folders if they are named plainly.
foreach(place INCLUDEDIR LIBDIR)
  set(VSUPT_PC_${place} ${CMAKE_INSTALL_FULL_${place}})
  if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    file(RELATIVE_PATH VSUPT_PC_${place}
      ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_FULL_${place}})
    string(REGEX REPLACE "/$" "" VSUPT_PC_${place} "\${pcfiledir}/${VSUPT_PC_${place}}")
  endif()
endforeach()
configure_file(packaging/vsupt.pc.in vsupt.pc @ONLY)
configure_package_config_file(packaging/VarnSupportConfig.cmake.in VarnSupportConfig.cmake
  INSTALL_DESTINATION ${VSUPT_CMAKE_DIR})
write_basic_package_version_file(VarnSupportConfigVersion.cmake COMPATIBILITY SameMajorVersion)

install(TARGETS vsupt EXPORT VarnSupportTargets
  LIBRARY
    DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT Runtime
    NAMELINK_COMPONENT Development)
install(FILES ${VSUPT_HEADERS}
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/VarnSupport
  COMPONENT Development)
install(EXPORT VarnSupportTargets
  NAMESPACE VarnSupport::
  DESTINATION ${VSUPT_CMAKE_DIR}
  COMPONENT Development)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/VarnSupportConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/VarnSupportConfigVersion.cmake
  DESTINATION ${VSUPT_CMAKE_DIR}
  COMPONENT Development)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vsupt.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT Development)
install(FILES docs/man/vsupt.7
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man7
  COMPONENT Development)
