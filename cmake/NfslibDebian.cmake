# Debian packages: libnfslib1, libnfslib-dev and nfslib-tools, made by `cpack` (scripts/package.sh). To
# be configured with the prefix /usr, for the directories are those of the packages.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME nfslib)
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL library development tools)
# Whatever the umask of the one who builds.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE 0nfslib1)  # gives way to a package of Debian's own
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "nfslib developers <nfslib@example.org>")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(library_package libnfslib${PROJECT_VERSION_MAJOR})
set(same_library
    "${library_package} (= ${CPACK_DEBIAN_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own
set(about
    "This library lets a program serve a file tree of its own over NFS 3, 4.0
and 4.1: the contents of a backup, an archive, a directory. It is a whole
server inside the program's process, on loopback addresses, for the NFS
client that the system already has.
.
")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library_package})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION
    "NFS server for trees that programs make up
${about}This package has the library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libnfslib-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
list(SORT nfslib_host_packages)
list(REMOVE_DUPLICATES nfslib_host_packages)
list(JOIN nfslib_host_packages ", " host_packages)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${same_library}")
if(host_packages)
  string(APPEND CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS ", ${host_packages}")
endif()
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
    "NFS server for trees that programs make up (development)
${about}This package has what programs are compiled against, and the ready-made
hosts as static libraries.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME nfslib-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${same_library}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS nfs-common)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
    "serve or mount a directory, an archive or memory over NFS
${about}This package has the command nfslib, which needs no configuration and
leaves nothing behind.")

# What other packages are told of the library: which version has its symbols (this one, for a program
# that was built with it), and that ldconfig has to look.
set(soname "libnfslib.so.${PROJECT_VERSION_MAJOR}")
set(generated "${PROJECT_BINARY_DIR}/debian")
file(STRINGS "${PROJECT_SOURCE_DIR}/cmake/nfslib.symbols" symbols)
list(TRANSFORM symbols REPLACE "^(.+)$" " \\1@Base ${PROJECT_VERSION}")
list(JOIN symbols "\n" symbols)
file(WRITE "${generated}/symbols" "${soname} ${library_package} #MINVER#
* Build-Depends-Package: libnfslib-dev\n${symbols}\n")
file(WRITE "${generated}/shlibs" "libnfslib ${PROJECT_VERSION_MAJOR} ${library_package} (>= ${PROJECT_VERSION})\n")
file(WRITE "${generated}/triggers" "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA "${generated}/symbols;${generated}/shlibs;${generated}/triggers")
set_property(DIRECTORY "${PROJECT_SOURCE_DIR}" APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
                                                             cmake/nfslib.symbols)

configure_file("${PROJECT_SOURCE_DIR}/cmake/debian/changelog.in" "${generated}/changelog" @ONLY)
nfslib_compress("${generated}/changelog" changelog)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  set(directory "${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}")
  install(FILES "${PROJECT_SOURCE_DIR}/cmake/debian/copyright" DESTINATION ${directory}
          COMPONENT ${component})
  install(FILES "${changelog}" DESTINATION ${directory} RENAME changelog.Debian.gz
          COMPONENT ${component})
endforeach()

set(CPACK_POST_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/cmake/debian/finish.cmake")
set(CPACK_NFSLIB_EPOCH $ENV{SOURCE_DATE_EPOCH})
include(CPack)
