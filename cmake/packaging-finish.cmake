# Run by cpack on the packages it made (CPACK_POST_BUILD_SCRIPTS, set in cmake/packaging.cmake), to say with
# dpkg-deb what CPack cannot say:
#  - Multi-Arch: same, for the library and the development package, so that the packages of two architectures
#    install together (the files they share, data, headers and documents, are the same bytes). CPack has no
#    variable for the field.
#  - no postinst and postrm that call ldconfig: CPack writes them for any library under /usr/lib, but dpkg's
#    ldconfig trigger does that job, and a package with a postrm stays in dpkg's database after dpkg -r.

# What CPack's ldconfig scripts are made of; anything else in them is someone's and stops the build.
set(ldconfig_script "#![^\n]*|set -e|if \\[ \"\\$1\" = \"[a-z]+\" \\]; then|ldconfig|fi|[ \t\n]")

foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(name ${deb} NAME)
  string(REGEX REPLACE "_.*" "" name ${name})
  if(NOT name IN_LIST CPACK_MSPLATFORM_MULTIARCH_SAME)
    continue()
  endif()
  set(tree ${CPACK_MSPLATFORM_WORK_DIR}/${name})
  file(REMOVE_RECURSE ${tree})
  execute_process(COMMAND dpkg-deb -R ${deb} ${tree} COMMAND_ERROR_IS_FATAL ANY)
  file(READ ${tree}/DEBIAN/control control)
  string(STRIP "${control}" control)
  file(WRITE ${tree}/DEBIAN/control "${control}\nMulti-Arch: same\n")
  foreach(script postinst postrm)
    if(EXISTS ${tree}/DEBIAN/${script})
      file(READ ${tree}/DEBIAN/${script} text)
      string(REGEX REPLACE "${ldconfig_script}" "" rest "${text}")
      if(NOT rest STREQUAL "")
        message(FATAL_ERROR "${name}: ${script} does more than call ldconfig:\n${text}")
      endif()
      file(REMOVE ${tree}/DEBIAN/${script})
    endif()
  endforeach()
  execute_process(COMMAND dpkg-deb --root-owner-group -Zxz -b ${tree} ${deb}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${tree})
endforeach()
