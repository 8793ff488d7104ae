# Installation: headers, the shared library, a CMake package and a pkg-config file.
install(TARGETS Corvane EXPORT CorvaneTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/Corvane include/Fundel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
