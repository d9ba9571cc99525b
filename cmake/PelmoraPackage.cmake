# Man pages, completion and the Debian package (cpack -G DEB; scripts/package).

install(FILES docs/man/pelmora.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES docs/man/pelmorad.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES packaging/completion/pelmora
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions)
install(FILES packaging/pelmorad.toml DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/pelmora/examples)
# The configuration itself goes to /etc only in the package: a plain `cmake --install` leaves
# the machine's /etc alone, whatever the prefix.
install(FILES packaging/pelmorad.toml DESTINATION /etc/pelmora
        PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ
        COMPONENT etc EXCLUDE_FROM_ALL)

set(CPACK_PACKAGE_NAME pelmora)
set(CPACK_PACKAGE_VENDOR Pelmora)
set(CPACK_PACKAGE_CONTACT "Pelmora maintainers <pelmora@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "administration service, command-line tool and library for hosts and fleets")
set(CPACK_PACKAGE_DESCRIPTION
    "pelmorad answers file, command and scheduler requests as each account's own user;\n\
pelmora drives it on one host or a fleet, and runs the library's archive, HTTP, SQL and\n\
cryptography tools. Includes libpelmora, its headers and the Python module.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_COMPONENTS_ALL Unspecified etc)
set(CPACK_DEBIAN_PACKAGE_NAME pelmora)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/pelmora)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "adduser")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "python3")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/debian/conffiles
    ${PROJECT_SOURCE_DIR}/packaging/debian/postinst
    ${PROJECT_SOURCE_DIR}/packaging/debian/prerm
    ${PROJECT_SOURCE_DIR}/packaging/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
