# What cpack leaves to be done: it adds scripts that call ldconfig, for which the package has a trigger,
# it counts what links lead to as installed, and takes the times of files as they come. Packages of the same sources are the
# same, byte by byte.

if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  set(ENV{SOURCE_DATE_EPOCH} ${CPACK_NFSLIB_EPOCH})
endif()
foreach(package IN LISTS CPACK_PACKAGE_FILES)
  set(tree "${package}.tree")
  file(REMOVE_RECURSE "${tree}")
  execute_process(COMMAND dpkg-deb --raw-extract "${package}" "${tree}" COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE "${tree}/DEBIAN/postinst" "${tree}/DEBIAN/postrm")
  execute_process(COMMAND du --summarize --apparent-size --block-size=1K "${tree}/usr"
                  OUTPUT_VARIABLE kilobytes COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX MATCH "^[0-9]+" kilobytes "${kilobytes}")
  file(READ "${tree}/DEBIAN/control" control)
  string(REGEX REPLACE "Installed-Size: [0-9]+" "Installed-Size: ${kilobytes}" control "${control}")
  file(WRITE "${tree}/DEBIAN/control" "${control}")
  execute_process(COMMAND find "${tree}" -exec touch --no-dereference "--date=@$ENV{SOURCE_DATE_EPOCH}" {} +
                  COMMAND_ERROR_IS_FATAL ANY)
  execute_process(COMMAND dpkg-deb --root-owner-group --build "${tree}" "${package}" OUTPUT_QUIET
                  COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE "${tree}")
endforeach()
