# Read by cpack before it makes the Debian packages (CPACK_PROJECT_CONFIG_FILE, set in cmake/packaging.cmake):
# refuses a build that would make wrong packages, and computes the Depends of the packages with binaries.

if(NOT CPACK_GENERATOR STREQUAL "DEB")
  return()
endif()

if(NOT CPACK_MSPLATFORM_LIBDIR STREQUAL "lib/${CPACK_MSPLATFORM_MULTIARCH}")
  message(FATAL_ERROR "The library package installs to the multiarch directory: configure with "
                      "-DCMAKE_INSTALL_LIBDIR=lib/${CPACK_MSPLATFORM_MULTIARCH} (scripts/package does)")
endif()
file(STRINGS ${CPACK_MSPLATFORM_CHANGELOG} top LIMIT_COUNT 1)
if(NOT top MATCHES "^msplatform \\(${CPACK_PACKAGE_VERSION}\\) ")
  message(FATAL_ERROR "${CPACK_MSPLATFORM_CHANGELOG}: the top entry is not version ${CPACK_PACKAGE_VERSION}")
endif()

# dpkg-shlibdeps reads the libraries that the binaries need and the symbol versions they use, and turns them
# into package dependencies; libmsplatform.so.1 maps to libmsplatform1 through the line that package's shlibs
# file carries. A library it cannot place fails the build rather than drop a dependency.
#
# A cross build finds the target's libraries in the cross tool chain, whose packages name them for this
# machine: libc6:armhf, libstdc++6:armhf, libgcc-s1-armhf-cross. On the appliance they are libc6, libstdc++6
# and libgcc-s1: the qualifier and the -cross suffix go. Those packages ship no symbols files for libc6 and
# libstdc++6, only shlibs lines, so libc6 is bounded by its whole version, and libstdc++6, whose shlibs line
# has no version, by the version of the cross library that the binaries were linked against. Both bounds can
# only be later than what the binaries need, never earlier.
include(${CPACK_MSPLATFORM_BINARIES_FILE})
file(REMOVE_RECURSE ${CPACK_MSPLATFORM_WORK_DIR})
file(MAKE_DIRECTORY ${CPACK_MSPLATFORM_WORK_DIR}/debian)
file(WRITE ${CPACK_MSPLATFORM_WORK_DIR}/debian/control "")
file(WRITE ${CPACK_MSPLATFORM_WORK_DIR}/debian/shlibs.local "${CPACK_MSPLATFORM_SHLIBS}\n")
list(TRANSFORM CPACK_MSPLATFORM_LIBRARY_DIRS PREPEND "-l" OUTPUT_VARIABLE search)
set(arch ${CPACK_DEBIAN_PACKAGE_ARCHITECTURE})

foreach(component RUNTIME MSPLAT)
  set(binary ${MSPLATFORM_DEB_BINARIES_${component}})
  if(NOT binary)
    continue()
  endif()
  execute_process(COMMAND dpkg-shlibdeps -O ${search} ${binary} WORKING_DIRECTORY ${CPACK_MSPLATFORM_WORK_DIR}
    OUTPUT_VARIABLE substvars ERROR_VARIABLE errors RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "dpkg-shlibdeps failed on ${binary}:\n${errors}")
  endif()
  string(REGEX REPLACE "^shlibs:Depends=" "" substvars "${substvars}")
  string(STRIP "${substvars}" substvars)
  string(REPLACE ", " ";" depends "${substvars}")
  if(CPACK_MSPLATFORM_CROSS)
    set(mapped)
    foreach(depend IN LISTS depends)
      string(REGEX REPLACE "(:${arch}|-${arch}-cross)( |$)" "\\2" depend "${depend}")
      if(NOT depend MATCHES " \\(")
        execute_process(COMMAND dpkg-query -W -f=\${Version} ${depend}-${arch}-cross
          OUTPUT_VARIABLE version ERROR_QUIET)
        if(NOT version MATCHES "^([0-9][0-9.]*)")
          message(FATAL_ERROR "${binary} needs ${depend}: no version of ${depend}-${arch}-cross to bound it")
        endif()
        string(APPEND depend " (>= ${CMAKE_MATCH_1})")
      endif()
      list(APPEND mapped "${depend}")
    endforeach()
    set(depends ${mapped})
  endif()
  list(JOIN depends ", " CPACK_DEBIAN_${component}_PACKAGE_DEPENDS)
endforeach()
