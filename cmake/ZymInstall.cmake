# What `cmake --install` puts in place: libraries, headers, program, man page, completions, CMake package
# and pkg-config files. The tree may be moved as a whole: no file names the prefix.
include(CMakePackageConfigHelpers)

install(TARGETS runtime-qwen35 zym_shared LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(TARGETS zym RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
install(FILES "${PROJECT_SOURCE_DIR}/include/zym/engine.h" "${PROJECT_SOURCE_DIR}/include/zym/plugin.h"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/zym")
install(FILES "${PROJECT_SOURCE_DIR}/host/zym.1" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")
set(zym_completion_dir "${PROJECT_BINARY_DIR}/host/completion")
install(FILES "${zym_completion_dir}/zym" OPTIONAL
  DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions")
install(FILES "${zym_completion_dir}/_zym" OPTIONAL
  DESTINATION "${CMAKE_INSTALL_DATADIR}/zsh/site-functions")
install(FILES "${zym_completion_dir}/zym.fish" OPTIONAL
  DESTINATION "${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d")

set(zym_package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/zym")
get_target_property(zym_engine_abi zym_shared SOVERSION)
set(zym_engine_soname "libzym.so.${zym_engine_abi}")
configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/install/zym-config.cmake.in"
  "${PROJECT_BINARY_DIR}/zym-config.cmake"
  INSTALL_DESTINATION "${zym_package_dir}"
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/zym-config-version.cmake"
  COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/zym-config.cmake"
  "${PROJECT_BINARY_DIR}/zym-config-version.cmake" DESTINATION "${zym_package_dir}")

set(zym_pc_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
file(RELATIVE_PATH zym_prefix_from_pc "/${zym_pc_dir}" "/")
string(REGEX REPLACE "/$" "" zym_prefix_from_pc "${zym_prefix_from_pc}")
foreach(module zym-engine zym-plugin)
  configure_file("${PROJECT_SOURCE_DIR}/cmake/install/${module}.pc.in"
    "${PROJECT_BINARY_DIR}/${module}.pc" @ONLY)
  install(FILES "${PROJECT_BINARY_DIR}/${module}.pc" DESTINATION "${zym_pc_dir}")
endforeach()
