# What `cmake --install` puts where. The installed tree may be moved as a whole.
#
# Components: library (what programs need at run time), development, tools.

include(CMakePackageConfigHelpers)

set(nfslib_cmake_dir "${CMAKE_INSTALL_LIBDIR}/cmake/nfslib")
set(nfslib_generated "${PROJECT_BINARY_DIR}/install")

# The day that the manual pages bear: SOURCE_DATE_EPOCH, or the day of the release.
set(nfslib_release_epoch 1795392000)
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  set(ENV{SOURCE_DATE_EPOCH} ${nfslib_release_epoch})
endif()
string(TIMESTAMP NFSLIB_DATE "%Y-%m-%d" UTC)
string(TIMESTAMP NFSLIB_CHANGELOG_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)

# ---- Library and headers

install(
  TARGETS nfslib nfslib_headers
  EXPORT nfslibTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT nfslibTargets NAMESPACE nfslib:: DESTINATION ${nfslib_cmake_dir}
        COMPONENT development)

# ---- Hosts, each a component of the CMake package

# What finds the packages behind the targets of `links` again, as CMake code.
function(nfslib_find_dependencies result links)
  set(code "")
  foreach(link IN LISTS links)
    if(link MATCHES "^PkgConfig::(.+)$")
      set(prefix ${CMAKE_MATCH_1})
      if(NOT ${prefix}_MODULE_NAME)
        message(FATAL_ERROR "${link} has to be one pkg-config module to be installed with a host.")
      endif()
      string(APPEND code "find_dependency(PkgConfig)\n"
             "pkg_check_modules(${prefix} REQUIRED QUIET IMPORTED_TARGET ${${prefix}_MODULE_NAME})\n")
    elseif(link MATCHES "^([^:]+)::")
      string(APPEND code "find_dependency(${CMAKE_MATCH_1})\n")
    endif()
  endforeach()
  set(${result} "${code}" PARENT_SCOPE)
endfunction()

get_property(nfslib_hosts GLOBAL PROPERTY NFSLIB_HOSTS)
if(NOT NFSLIB_BUILD_TOOLS)
  set(nfslib_hosts "")
endif()
foreach(host IN LISTS nfslib_hosts)
  get_target_property(links nfslib_host_${host} NFSLIB_LINKS)
  nfslib_find_dependencies(NFSLIB_FIND_DEPENDENCIES "${links}")
  set(NFSLIB_HOST ${host})
  configure_file("${PROJECT_SOURCE_DIR}/cmake/nfslibComponent.cmake.in"
                 "${nfslib_generated}/nfslib-${host}.cmake" @ONLY)
  install(
    TARGETS nfslib_host_${host}
    EXPORT nfslib-${host}-targets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
  install(EXPORT nfslib-${host}-targets NAMESPACE nfslib:: DESTINATION ${nfslib_cmake_dir}
          COMPONENT development)
  install(FILES "${nfslib_generated}/nfslib-${host}.cmake" DESTINATION ${nfslib_cmake_dir}
          COMPONENT development)
endforeach()

# ---- For find_package and pkg-config

string(REPLACE ";" ", " NFSLIB_HOST_LIST "${nfslib_hosts}")
configure_package_config_file(
  "${PROJECT_SOURCE_DIR}/cmake/nfslibConfig.cmake.in" "${nfslib_generated}/nfslibConfig.cmake"
  INSTALL_DESTINATION ${nfslib_cmake_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file("${nfslib_generated}/nfslibConfigVersion.cmake"
                                 COMPATIBILITY SameMajorVersion)
install(FILES "${nfslib_generated}/nfslibConfig.cmake"
              "${nfslib_generated}/nfslibConfigVersion.cmake"
        DESTINATION ${nfslib_cmake_dir} COMPONENT development)

# The prefix is told from where the file lies, so that it is right wherever the tree is moved.
function(nfslib_pkg_config_dir result dir)
  if(NOT IS_ABSOLUTE "${dir}")
    set(dir "\${prefix}/${dir}")
  endif()
  set(${result} "${dir}" PARENT_SCOPE)
endfunction()
file(RELATIVE_PATH to_prefix "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" to_prefix "${to_prefix}")
set(NFSLIB_PC_PREFIX "\${pcfiledir}/${to_prefix}")
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(NFSLIB_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
endif()
nfslib_pkg_config_dir(NFSLIB_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
nfslib_pkg_config_dir(NFSLIB_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
configure_file("${PROJECT_SOURCE_DIR}/cmake/nfslib.pc.in" "${nfslib_generated}/nfslib.pc" @ONLY)
install(FILES "${nfslib_generated}/nfslib.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)

# ---- The tool, its completion, manual pages

# nfslib_install_manual(PAGE COMPONENT): docs/man/PAGE.in with version and date filled in.
function(nfslib_install_manual page component)
  set(file "${nfslib_generated}/${page}")
  configure_file("${PROJECT_SOURCE_DIR}/docs/man/${page}.in" "${file}" @ONLY)
  if(NFSLIB_DEBIAN)
    nfslib_compress("${file}" file)
  endif()
  string(REGEX MATCH "[0-9]$" section "${page}")
  install(FILES "${file}" DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endfunction()

# nfslib_compress(FILE RESULT): FILE.gz, the same bytes each time.
function(nfslib_compress file result)
  execute_process(COMMAND gzip -9nc "${file}" OUTPUT_FILE "${file}.gz" COMMAND_ERROR_IS_FATAL ANY)
  set(${result} "${file}.gz" PARENT_SCOPE)
endfunction()

nfslib_install_manual(nfslib.3 development)
if(NFSLIB_BUILD_TOOLS)
  nfslib_install_manual(nfslib.1 tools)
  file(RELATIVE_PATH to_library "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
  set_target_properties(nfslib_tool PROPERTIES INSTALL_RPATH "$ORIGIN/${to_library}")
  install(TARGETS nfslib_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  install(FILES "${PROJECT_SOURCE_DIR}/tools/nfslib/completion.bash"
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME nfslib
          COMPONENT tools)
endif()
