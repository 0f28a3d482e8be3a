# Debian packages, made by CPack's DEB generator (scripts/package drives it), one per install component:
#   runtime  -> libmsplatform1     the library and its shipped data
#   dev      -> libmsplatform-dev  headers, the .so link, the CMake package, msplatform.pc
#   msplat   -> msplat             the tool and everything else installed under COMPONENT msplat
# A component nobody mapped here still gets a package (msplatform-<component>), so nothing installed is left
# out silently; scripts/package refuses any set but these three.
#
# The library goes to the multiarch directory, lib/<tuple>, so that the libraries of two architectures install
# side by side: configure with -DCMAKE_INSTALL_LIBDIR=lib/<tuple> (scripts/package does; cpack refuses
# otherwise).

find_program(MSPLATFORM_DPKG_ARCHITECTURE dpkg-architecture)
if(NOT MSPLATFORM_DPKG_ARCHITECTURE OR NOT CMAKE_LIBRARY_ARCHITECTURE)
  return()  # not a Debian tool chain: no packages
endif()
execute_process(COMMAND ${MSPLATFORM_DPKG_ARCHITECTURE} -t${CMAKE_LIBRARY_ARCHITECTURE} -qDEB_HOST_ARCH
  OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME msplatform)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "msplatform maintainers <maintainers@msplatform.invalid>")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(MSPLATFORM_DEB_RUNTIME libmsplatform${MSPLATFORM_SOVERSION})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${MSPLATFORM_DEB_RUNTIME})
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libmsplatform-dev)
set(CPACK_DEBIAN_MSPLAT_PACKAGE_NAME msplat)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_MSPLAT_PACKAGE_SECTION utils)
# The library package alone holds a shared object. Its shlibs file maps libmsplatform.so.1 to it, for msplat
# here and for the server processes' own packages.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# The loader's cache is refreshed through dpkg's ldconfig trigger, once per dpkg run.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/deb/triggers)
# The headers and the CMake package are of this very build: nothing else fits them.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${MSPLATFORM_DEB_RUNTIME} (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "platform layer of the media server (shared library)
Every server process of the network-attached storage appliance loads
libmsplatform.so. Through it they share one configuration file,
MediaServer.cfg, under a lock that works across processes, a rotating event
log, the table of translated terms and the table of media formats.
.
This package holds the library and its shipped defaults: the media format
table and the sample language file, in /usr/share/msplatform.")
set(CPACK_DEBIAN_DEV_DESCRIPTION "platform layer of the media server (development files)
What a server process is built against: the headers (msplatform.h), the link
to the shared library, the CMake package for find_package(msplatform) and
the pkg-config file msplatform.pc.")
set(CPACK_DEBIAN_MSPLAT_DESCRIPTION "command-line tool over the media server's platform layer
msplat reads and changes MediaServer.cfg under the same lock as the server
processes, walks directories as they do, writes MD5 sums and UUIDs, looks up
media formats and translated terms, writes log lines, and shows a server's
start-up in a temporary directory (msplat demo).")

# Every package carries the copyright file and the changelog, compressed as Debian wants it: gzip -9 without a
# time stamp, so that the bytes are the same in every build and on every architecture. A component's install,
# which is what cpack does, installs them; a plain "cmake --install" does not.
set(MSPLATFORM_DEB_CHANGELOG ${PROJECT_SOURCE_DIR}/cmake/deb/changelog)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${MSPLATFORM_DEB_CHANGELOG})
execute_process(COMMAND gzip -9nc ${MSPLATFORM_DEB_CHANGELOG}
  OUTPUT_FILE ${PROJECT_BINARY_DIR}/changelog.gz COMMAND_ERROR_IS_FATAL ANY)
set(components runtime dev)
if(TARGET msplat)
  list(APPEND components msplat)
  # Manual pages the same way, whoever installs them under COMPONENT msplat: this rule runs after theirs.
  install(CODE "
    file(GLOB_RECURSE pages \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_MANDIR}/*\")
    list(FILTER pages EXCLUDE REGEX \"[.]gz$\")
    foreach(page IN LISTS pages)
      execute_process(COMMAND gzip -9nf \${page} COMMAND_ERROR_IS_FATAL ANY)
    endforeach()" COMPONENT msplat EXCLUDE_FROM_ALL)
endif()
foreach(component IN LISTS components)
  string(TOUPPER ${component} upper)
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/deb/copyright ${PROJECT_BINARY_DIR}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

# At cpack time: checks and the Depends computed from the built binaries before the packages are made
# (cmake/packaging-depends.cmake), what CPack cannot say after (cmake/packaging-finish.cmake).
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/packaging-depends.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/packaging-finish.cmake)
set(CPACK_MSPLATFORM_WORK_DIR ${PROJECT_BINARY_DIR}/deb-work)
set(CPACK_MSPLATFORM_CHANGELOG ${MSPLATFORM_DEB_CHANGELOG})
set(CPACK_MSPLATFORM_LIBDIR ${CMAKE_INSTALL_LIBDIR})
set(CPACK_MSPLATFORM_MULTIARCH ${CMAKE_LIBRARY_ARCHITECTURE})
set(CPACK_MSPLATFORM_MULTIARCH_SAME ${MSPLATFORM_DEB_RUNTIME} ${CPACK_DEBIAN_DEV_PACKAGE_NAME})
# The line of the library package's shlibs file, for msplat's dependency on it.
set(CPACK_MSPLATFORM_SHLIBS
  "libmsplatform ${MSPLATFORM_SOVERSION} ${MSPLATFORM_DEB_RUNTIME} (>= ${PROJECT_VERSION})")
# Where the binaries' libraries are: the build tree, and for a cross build the cross tool chain's libraries.
set(CPACK_MSPLATFORM_LIBRARY_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_MSPLATFORM_CROSS ${CMAKE_CROSSCOMPILING})
if(CMAKE_CROSSCOMPILING)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libc.so.6
    OUTPUT_VARIABLE libc OUTPUT_STRIP_TRAILING_WHITESPACE)
  file(REAL_PATH ${libc} libc)
  get_filename_component(libc_dir ${libc} DIRECTORY)
  list(APPEND CPACK_MSPLATFORM_LIBRARY_DIRS ${libc_dir})
endif()
set(binaries "set(MSPLATFORM_DEB_BINARIES_RUNTIME [[$<TARGET_FILE:msplatform>]])\n")
if(TARGET msplat)
  string(APPEND binaries "set(MSPLATFORM_DEB_BINARIES_MSPLAT [[$<TARGET_FILE:msplat>]])\n")
endif()
file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/packaging-binaries.cmake CONTENT "${binaries}")
set(CPACK_MSPLATFORM_BINARIES_FILE ${PROJECT_BINARY_DIR}/packaging-binaries.cmake)

include(CPack)
