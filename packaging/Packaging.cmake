# Install rules and the Debian package. The same rules place the programs in the product's
# own installer on Windows; manual pages are for POSIX systems only.
include(GNUInstallDirs)

install(TARGETS zentrix-data-normalizer zentrix-dbinfo RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES README.md packaging/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR})

if(UNIX)
  # Compressed the way Debian ships manual pages; gzip -n keeps the bytes reproducible.
  set(manual_pages zentrix-data-normalizer.1 zentrix-dbinfo.1)
  set(compressed_pages)
  foreach(page IN LISTS manual_pages)
    set(source ${CMAKE_SOURCE_DIR}/man/${page})
    set(compressed ${CMAKE_BINARY_DIR}/man/${page}.gz)
    add_custom_command(OUTPUT ${compressed}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
      COMMAND gzip -9 -n -c ${source} > ${compressed}
      DEPENDS ${source} VERBATIM)
    list(APPEND compressed_pages ${compressed})
  endforeach()
  add_custom_target(manual_pages ALL DEPENDS ${compressed_pages})
  install(FILES ${compressed_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

  # A native package's changelog, where Debian expects it.
  set(changelog ${CMAKE_BINARY_DIR}/changelog.gz)
  add_custom_command(OUTPUT ${changelog}
    COMMAND gzip -9 -n -c ${CMAKE_SOURCE_DIR}/packaging/changelog > ${changelog}
    DEPENDS ${CMAKE_SOURCE_DIR}/packaging/changelog VERBATIM)
  add_custom_target(changelog ALL DEPENDS ${changelog})
  install(FILES ${changelog} DESTINATION ${CMAKE_INSTALL_DOCDIR})
endif()

set(CPACK_GENERATOR DEB)
# Values reach the package as written (the description holds a backslash).
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PACKAGE_NAME zentrix-data-normalizer)
set(CPACK_PACKAGE_VENDOR Tarvex)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "repair broken JSON escapes in the Zentrix scan database")
set(CPACK_PACKAGE_DESCRIPTION
  "A one-shot maintenance tool of the Zentrix file-scanning server. It
brings the product's local PostgreSQL server into a usable state
(encrypted connection data, first-run cluster creation, server
configuration, start and readiness wait) and rewrites, for every scanning
instance, the scan rows whose file-type JSON holds lone UTF-16 surrogate
escapes, NUL escapes or \\x sequences, with one regular-expression UPDATE
on the server. It also ships zentrix-dbinfo, which shows and provisions
the encrypted database information file.")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Zentrix maintainers <zentrix-maintainers@tarvex.example>")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Loaded at run time by name, so the linker does not see it.
set(CPACK_DEBIAN_PACKAGE_DEPENDS libqt6sql6-psql)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS postgresql)
set(CPACK_STRIP_FILES ON)
include(CPack)
