# Installation: the public headers, the shared library, a CMake package
# (find_package(Corvane) -> Corvane::Corvane) and a pkg-config file (corvane.pc).
# Internal headers under Src/ and the test archive corvane_static stay in the build.
include(CMakePackageConfigHelpers)

set(CORVANE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Corvane)
set(CORVANE_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS Corvane EXPORT CorvaneTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/Corvane include/Fundel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_BINARY_DIR}/include/Corvane/Config.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Corvane)

install(EXPORT CorvaneTargets NAMESPACE Corvane:: DESTINATION ${CORVANE_CMAKE_DIR})
configure_package_config_file(cmake/CorvaneConfig.cmake.in
  ${PROJECT_BINARY_DIR}/CorvaneConfig.cmake
  INSTALL_DESTINATION ${CORVANE_CMAKE_DIR})
# The same rule as the SONAME (libCorvane.so.<major>).
write_basic_package_version_file(${PROJECT_BINARY_DIR}/CorvaneConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/CorvaneConfig.cmake
              ${PROJECT_BINARY_DIR}/CorvaneConfigVersion.cmake
        DESTINATION ${CORVANE_CMAKE_DIR})

# The .pc file finds the prefix from its own place, so the tree may be installed with
# --prefix or DESTDIR anywhere and moved afterwards (absolute directories stay as given).
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(CORVANE_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH _pc_to_prefix /${CORVANE_PKGCONFIG_DIR} /)
  string(REGEX REPLACE "/$" "" _pc_to_prefix "${_pc_to_prefix}")
  set(CORVANE_PC_PREFIX "\${pcfiledir}/${_pc_to_prefix}")
endif()
foreach(_dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${_dir}}")
    set(CORVANE_PC_${_dir} "${CMAKE_INSTALL_${_dir}}")
  else()
    set(CORVANE_PC_${_dir} "\${prefix}/${CMAKE_INSTALL_${_dir}}")
  endif()
endforeach()
configure_file(cmake/corvane.pc.in ${PROJECT_BINARY_DIR}/corvane.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/corvane.pc DESTINATION ${CORVANE_PKGCONFIG_DIR})
