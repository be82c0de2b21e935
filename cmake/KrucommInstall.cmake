include(CMakePackageConfigHelpers)

# krucomm_install_pkg_config(<library>) writes <library>.pc from packaging/<library>.pc.in. Its
# paths are relative to itself, since `cmake --install --prefix` decides only later where it will be.
function(krucomm_install_pkg_config library)
  file(RELATIVE_PATH prefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  string(REGEX REPLACE "/$" "" prefix "${prefix}")
  configure_file("${PROJECT_SOURCE_DIR}/packaging/${library}.pc.in"
                 "${PROJECT_BINARY_DIR}/packaging/${library}.pc" @ONLY)
  install(FILES "${PROJECT_BINARY_DIR}/packaging/${library}.pc"
          DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
endfunction()

function(krucomm_install_package_config)
  set(directory "${CMAKE_INSTALL_LIBDIR}/cmake/krucomm")
  configure_package_config_file(
    "${PROJECT_SOURCE_DIR}/packaging/krucommConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/packaging/krucommConfig.cmake" INSTALL_DESTINATION "${directory}")
  write_basic_package_version_file("${PROJECT_BINARY_DIR}/packaging/krucommConfigVersion.cmake"
                                   COMPATIBILITY SameMajorVersion)
  install(FILES "${PROJECT_BINARY_DIR}/packaging/krucommConfig.cmake"
                "${PROJECT_BINARY_DIR}/packaging/krucommConfigVersion.cmake"
          DESTINATION "${directory}")
  install(
    EXPORT krucommTargets
    NAMESPACE krucomm::
    DESTINATION "${directory}")
endfunction()

# krucomm_install() installs the libraries, their headers, what find_package and pkg-config read,
# and the two programs.
function(krucomm_install)
  set(libraries)
  foreach(library kruinfra krucomm krucapi)
    if(TARGET ${library})
      list(APPEND libraries ${library} ${library}_static)
      krucomm_install_pkg_config(${library})
    endif()
  endforeach()
  # An installed tree works wherever it is put, without an entry in the loader's configuration.
  set_target_properties(${libraries} PROPERTIES INSTALL_RPATH "$ORIGIN")
  install(TARGETS ${libraries} EXPORT krucommTargets)
  install(
    DIRECTORY "${PROJECT_SOURCE_DIR}/include/" "${PROJECT_BINARY_DIR}/include/"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/krucomm"
    FILES_MATCHING
    PATTERN "*.h")
  krucomm_install_package_config()
  foreach(program corvaned corvane)
    if(TARGET ${program})
      set_target_properties(${program} PROPERTIES INSTALL_RPATH
                                                  "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
      install(TARGETS ${program})
    endif()
  endforeach()
endfunction()
