# cmake --install build [--component NAME], by component:
#   daemon   cloud_svr, a sample configuration, its man pages
#   client   the client library, its headers and that of cloud kits, their man pages
#   tools    cloud_ctl, cloud_sim, their man pages, the completion of cloud_ctl in bash
#   systemd  the unit; it names /usr/sbin, so it goes with -DCMAKE_INSTALL_PREFIX=/usr

function(cloud_svr_install_targets component)
    foreach(target IN LISTS ARGN)
        if(TARGET ${target})
            install(TARGETS ${target} COMPONENT ${component})
        endif()
    endforeach()
endfunction()

install(TARGETS cloud_svr COMPONENT daemon RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES examples/cloud_svr.cfg COMPONENT daemon DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES docs/man/cloud_svr.8 COMPONENT daemon DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES docs/man/cloud_svr.cfg.5 COMPONENT daemon DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
install(FILES packaging/cloud_svr.service COMPONENT systemd DESTINATION lib/systemd/system)

cloud_svr_install_targets(client cloud_svr_client_static cloud_svr_client_shared)
install(DIRECTORY include/ COMPONENT client DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")
install(DIRECTORY docs/man/ COMPONENT client DESTINATION ${CMAKE_INSTALL_MANDIR}/man3
        FILES_MATCHING PATTERN "*.3")

cloud_svr_install_targets(tools cloud_ctl cloud_sim)
install(DIRECTORY docs/man/ COMPONENT tools DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
        FILES_MATCHING PATTERN "*.1")
if(EXISTS ${PROJECT_SOURCE_DIR}/tools/cloud_ctl/cloud_ctl.bash)
    install(FILES tools/cloud_ctl/cloud_ctl.bash COMPONENT tools RENAME cloud_ctl
            DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
endif()
