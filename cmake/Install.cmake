# What `cmake --install` puts where (GNUInstallDirs), and the Debian package CPack makes of it.
#
#   bin/                                  the programs
#   lib/cacheview/cacheview-viewer.so     the viewer module, which cacheview finds at
#                                         ../lib/cacheview beside its own directory
#   share/man/man1/*.1.gz                 every man/*.1, compressed
#   share/applications/cacheview.desktop  the desktop entry
#   share/mime/packages/cacheview.xml     the shared-mime-info package of the two map formats
#   share/icons/hicolor/scalable/apps/    the icon
#   share/doc/cacheview/                  copyright, changelog.gz, README.md
include(GNUInstallDirs)

foreach(program cacheview cacheview-render cacheview-synth cacheview-export cacheview-merge
                cacheview-stats)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()

# The viewer module is made once every folder has been read (src/app/CMakeLists.txt); this
# deferred call runs after that one.
function(cacheview_install_viewer_module)
  if(TARGET cacheview-viewer)
    install(TARGETS cacheview-viewer LIBRARY DESTINATION lib/cacheview)
  endif()
endfunction()
cmake_language(DEFER DIRECTORY ${PROJECT_SOURCE_DIR} CALL cacheview_install_viewer_module)

# Man pages and the changelog are installed compressed, as Debian wants them: gzip -n keeps the
# name and time out of the archive, so the package is the same from one build to the next.
find_program(CACHEVIEW_GZIP gzip REQUIRED)
file(GLOB cacheview_man_pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/man/*.1)
set(cacheview_compressed)
foreach(page IN LISTS cacheview_man_pages)
  get_filename_component(name ${page} NAME)
  set(out ${PROJECT_BINARY_DIR}/man/${name}.gz)
  add_custom_command(OUTPUT ${out}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
    COMMAND ${CACHEVIEW_GZIP} -9n -c ${page} > ${out}
    DEPENDS ${page} VERBATIM)
  list(APPEND cacheview_compressed ${out})
  install(FILES ${out} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endforeach()

string(TIMESTAMP cacheview_changelog_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
set(CACHEVIEW_DEB_MAINTAINER "cacheview maintainers <maintainers@cacheview.invalid>"
    CACHE STRING "Maintainer field of the Debian package and its changelog")
file(WRITE ${PROJECT_BINARY_DIR}/doc/changelog
  "cacheview (${PROJECT_VERSION}) unstable; urgency=medium\n\n"
  "  * Release ${PROJECT_VERSION}.\n\n"
  " -- ${CACHEVIEW_DEB_MAINTAINER}  ${cacheview_changelog_date}\n")
add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/doc/changelog.gz
  COMMAND ${CACHEVIEW_GZIP} -9n -c ${PROJECT_BINARY_DIR}/doc/changelog
          > ${PROJECT_BINARY_DIR}/doc/changelog.gz
  DEPENDS ${PROJECT_BINARY_DIR}/doc/changelog VERBATIM)
list(APPEND cacheview_compressed ${PROJECT_BINARY_DIR}/doc/changelog.gz)
add_custom_target(cacheview_compressed_docs ALL DEPENDS ${cacheview_compressed})

install(FILES ${PROJECT_BINARY_DIR}/doc/changelog.gz ${PROJECT_SOURCE_DIR}/data/copyright
              ${PROJECT_SOURCE_DIR}/README.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES ${PROJECT_SOURCE_DIR}/data/cacheview.desktop
        DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES ${PROJECT_SOURCE_DIR}/data/cacheview-mime.xml
        DESTINATION ${CMAKE_INSTALL_DATADIR}/mime/packages RENAME cacheview.xml)
install(FILES ${PROJECT_SOURCE_DIR}/data/cacheview.svg
        DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)

# The Debian package: `cpack -G DEB` in the build directory (after a Release build).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME cacheview)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${CACHEVIEW_DEB_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_SECTION graphics)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "viewer and merger for irradiance maps and light caches")
# CPack puts the summary before this as the synopsis line.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
  "cacheview works on the global-illumination caches a production renderer
writes: irradiance maps (.lumap) and light caches (.lulmap). It merges the
maps a render farm writes frame by frame, plainly or keeping only the samples
that add information, reports on them, converts them to point lists and PLY
point clouds, draws them to pictures without a display, and shows them in an
interactive 3D viewer for finding and deleting bad samples.")
include(CPack)
