# Man pages, completion and the example configuration.

install(FILES docs/man/pelmora.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES docs/man/pelmorad.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES packaging/completion/pelmora
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions)
install(FILES packaging/pelmorad.toml DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/pelmora/examples)
