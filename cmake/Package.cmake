# Debian packages, one for each component.
set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL development program)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "kelvane developers <kelvane@example.org>")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "block hash store for disk images") # the descriptions go on from here

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkelvane-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libhwy-dev (>= 1.0.3)")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "A block hash store keeps one hash for every block of a disk image in a file
of its own, and answers from it what the hash of any range is.
.
This package has the static library and its headers.")

set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME kelvane-hash)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PROGRAM_DESCRIPTION "A block hash store keeps one hash for every block of a disk image in a file
of its own.
.
This package has the program kelvane-hash, which checks images by their hashes,
finds where two images differ, and makes one equal to the other by copying
only that.")

# The documents that every Debian package has.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
string(TIMESTAMP year %Y UTC)
file(WRITE ${PROJECT_BINARY_DIR}/changelog "kelvane (${PROJECT_VERSION}) unstable; urgency=medium

  * Release ${PROJECT_VERSION}; CHANGELOG.md in the sources lists the changes.

 -- ${CPACK_DEBIAN_PACKAGE_MAINTAINER}  ${date}
")
file(WRITE ${PROJECT_BINARY_DIR}/copyright "Copyright: ${year} the kelvane developers
License: Apache-2.0

On Debian systems the text of the license is in /usr/share/common-licenses/Apache-2.0.
")
execute_process(COMMAND gzip -9nf ${PROJECT_BINARY_DIR}/changelog COMMAND_ERROR_IS_FATAL ANY)
foreach(component DEVELOPMENT PROGRAM)
  string(TOLOWER ${component} name)
  install(FILES ${PROJECT_BINARY_DIR}/changelog.gz ${PROJECT_BINARY_DIR}/copyright
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${component}_PACKAGE_NAME}
    COMPONENT ${name} EXCLUDE_FROM_ALL)
endforeach()
include(CPack)
