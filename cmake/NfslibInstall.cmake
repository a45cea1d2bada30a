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

# ---- For pkg-config

# The prefix is told from where the file lies, so that it is right wherever the tree is moved. A Debian
# package stays where it is, and its directories are written plainly: pkg-config knows them for those
# that every compiler searches, and leaves them out.
set(NFSLIB_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
if(NOT NFSLIB_DEBIAN AND NOT IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  file(RELATIVE_PATH to_prefix "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
  string(REGEX REPLACE "/$" "" to_prefix "${to_prefix}")
  set(NFSLIB_PC_PREFIX "\${pcfiledir}/${to_prefix}")
endif()
foreach(dir LIBDIR INCLUDEDIR)
  set(NFSLIB_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  if(NOT IS_ABSOLUTE "${NFSLIB_PC_${dir}}")
    string(PREPEND NFSLIB_PC_${dir} "\${prefix}/")
  endif()
endforeach()

# nfslib_install_pc(NAME DESCRIPTION REQUIRES LIBS): NAME.pc for the library NAME and what it needs.
function(nfslib_install_pc NAME DESCRIPTION REQUIRES LIBS)
  configure_file("${PROJECT_SOURCE_DIR}/cmake/nfslib.pc.in" "${nfslib_generated}/${NAME}.pc" @ONLY)
  install(FILES "${nfslib_generated}/${NAME}.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
          COMPONENT development)
endfunction()
nfslib_install_pc(nfslib "${PROJECT_DESCRIPTION}" "" "-lnfslib -pthread")

# ---- Hosts, each a component of the CMake package

# What hosts are linked with: the target (for PkgConfig::X the module), how pkg-config is told of it, and
# the Debian package that compiling with it takes.
set(nfslib_known_links
    "Threads::Threads|-pthread|"
    "LibArchive::LibArchive|libarchive|libarchive-dev"
    "libarchive|libarchive|libarchive-dev"
    "ZLIB::ZLIB|zlib|zlib1g-dev"
    "zlib|zlib|zlib1g-dev"
    "BZip2::BZip2|-lbz2|libbz2-dev"
    "LibLZMA::LibLZMA|liblzma|liblzma-dev"
    "liblzma|liblzma|liblzma-dev"
    "libzstd|libzstd|libzstd-dev")

# What is behind the targets of `links`, as code that finds it again (FIND), for pkg-config (REQUIRES,
# LIBS) and as a list of Debian packages (PACKAGES), each in PREFIX_... of the caller.
function(nfslib_describe_links prefix links)
  foreach(part find libs requires packages)
    set(${part} "")
  endforeach()
  foreach(link IN LISTS links)
    if(link MATCHES "^nfslib(_host_|::)(.+)$")
      string(APPEND find "include(\"\${CMAKE_CURRENT_LIST_DIR}/nfslib-${CMAKE_MATCH_2}.cmake\")\n")
      string(APPEND requires ", nfslib_${CMAKE_MATCH_2}")
      continue()
    elseif(link MATCHES "^PkgConfig::(.+)$")
      set(found ${CMAKE_MATCH_1})
      set(link "${${found}_MODULE_NAME}")
      if(NOT link)
        message(FATAL_ERROR "PkgConfig::${found} is more than one module; a host that is installed "
                            "needs each of them by itself.")
      endif()
      string(APPEND find "find_dependency(PkgConfig)\n"
             "pkg_check_modules(${found} REQUIRED QUIET IMPORTED_TARGET ${link})\n")
    elseif(link MATCHES "^([^:]+)::")
      string(APPEND find "find_dependency(${CMAKE_MATCH_1})\n")
    endif()
    set(row ${nfslib_known_links})
    list(FILTER row INCLUDE REGEX "^${link}\\|")
    if(NOT row MATCHES "\\|(.*)\\|(.*)")
      message(WARNING "nfslib_known_links in cmake/NfslibInstall.cmake has no row for '${link}': "
                      "pkg-config and Debian packages will not bring it along.")
      continue()
    endif()
    set(words "${CMAKE_MATCH_1}")
    list(APPEND packages ${CMAKE_MATCH_2})
    if(words MATCHES "^-")
      string(APPEND libs " ${words}")
    else()
      string(APPEND requires ", ${words}")
    endif()
  endforeach()
  foreach(part find libs requires packages)
    string(TOUPPER ${part} name)
    set(${prefix}_${name} "${${part}}" PARENT_SCOPE)
  endforeach()
endfunction()

set(nfslib_hosts "")
if(NFSLIB_BUILD_TOOLS)
  get_property(nfslib_hosts GLOBAL PROPERTY NFSLIB_HOSTS)
endif()
set(nfslib_host_packages "")
foreach(NFSLIB_HOST IN LISTS nfslib_hosts)
  set(target nfslib_host_${NFSLIB_HOST})
  get_target_property(links ${target} NFSLIB_LINKS)
  nfslib_describe_links(NFSLIB_HOST "${links}")
  list(APPEND nfslib_host_packages ${NFSLIB_HOST_PACKAGES})
  configure_file("${PROJECT_SOURCE_DIR}/cmake/nfslibComponent.cmake.in"
                 "${nfslib_generated}/nfslib-${NFSLIB_HOST}.cmake" @ONLY)
  nfslib_install_pc(nfslib_${NFSLIB_HOST} "A ready-made host of nfslib: ${NFSLIB_HOST}"
                    "nfslib = ${PROJECT_VERSION}${NFSLIB_HOST_REQUIRES}"
                    "-lnfslib_${NFSLIB_HOST}${NFSLIB_HOST_LIBS}")
  install(
    TARGETS ${target}
    EXPORT nfslib-${NFSLIB_HOST}-targets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
  install(EXPORT nfslib-${NFSLIB_HOST}-targets NAMESPACE nfslib:: DESTINATION ${nfslib_cmake_dir}
          COMPONENT development)
  install(FILES "${nfslib_generated}/nfslib-${NFSLIB_HOST}.cmake" DESTINATION ${nfslib_cmake_dir}
          COMPONENT development)
endforeach()

# ---- For find_package

string(REPLACE ";" ", " NFSLIB_HOST_LIST "${nfslib_hosts}")
configure_package_config_file(
  "${PROJECT_SOURCE_DIR}/cmake/nfslibConfig.cmake.in" "${nfslib_generated}/nfslibConfig.cmake"
  INSTALL_DESTINATION ${nfslib_cmake_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file("${nfslib_generated}/nfslibConfigVersion.cmake"
                                 COMPATIBILITY SameMajorVersion)
install(FILES "${nfslib_generated}/nfslibConfig.cmake"
              "${nfslib_generated}/nfslibConfigVersion.cmake"
        DESTINATION ${nfslib_cmake_dir} COMPONENT development)

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
