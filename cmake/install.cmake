# cmake --install build [--component NAME], by component:
#   daemon      cloud_svr, its man pages, a configuration unless there is one already
#   systemd     the unit, and the user that it runs the daemon as
#   init        the script for BusyBox init, with paths as for the prefix /usr; only when named
#   client      the client library as programs load it
#   client_dev  what they are built with: headers (also that of kits), static library, man pages
#   tools       cloud_ctl, cloud_sim, their man pages, the completion of cloud_ctl in bash
#   memdebug    the tracking allocator, its man page
# Unit and pkg-config file hold the prefix that was configured; DESTDIR puts all of it elsewhere.
# cmake/package.cmake makes packages of these.

function(cloud_svr_install_manuals component)
    foreach(page IN LISTS ARGN)
        cmake_path(GET page EXTENSION LAST_ONLY section)
        string(SUBSTRING ${section} 1 -1 section)
        install(FILES docs/man/${page} COMPONENT ${component}
                DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
    endforeach()
endfunction()

# /etc with the prefix /usr, otherwise below the prefix.
set(config_folder ${CMAKE_INSTALL_SYSCONFDIR}/cloud_svr)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(config_folder ${CMAKE_INSTALL_FULL_SYSCONFDIR}/cloud_svr)
endif()

install(TARGETS cloud_svr COMPONENT daemon RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
cloud_svr_install_manuals(daemon cloud_svr.8 cloud_svr.cfg.5)
install(CODE "
    set(folder \"${config_folder}\")
    cmake_path(ABSOLUTE_PATH folder BASE_DIRECTORY \"\${CMAKE_INSTALL_PREFIX}\")
    if(NOT EXISTS \"\$ENV{DESTDIR}\${folder}/cloud_svr.cfg\")
        file(INSTALL DESTINATION \"\${folder}\" TYPE FILE
             FILES \"${PROJECT_SOURCE_DIR}/packaging/cloud_svr.cfg\")
    endif()" COMPONENT daemon)

configure_file(packaging/cloud_svr.service.in cloud_svr.service @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/cloud_svr.service COMPONENT systemd
        DESTINATION lib/systemd/system)
install(FILES packaging/cloud_svr.sysusers COMPONENT systemd RENAME cloud_svr.conf
        DESTINATION lib/sysusers.d)

install(PROGRAMS packaging/cloud_svr.init COMPONENT init EXCLUDE_FROM_ALL RENAME S90cloud_svr
        DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/init.d)

install(TARGETS cloud_svr_client_static COMPONENT client_dev)
install(TARGETS cloud_svr_client_shared
        LIBRARY COMPONENT client NAMELINK_COMPONENT client_dev)
install(DIRECTORY include/ COMPONENT client_dev DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")
cloud_svr_install_manuals(client_dev cloud_svr_client.3 cloud_kit.3)

foreach(tool IN ITEMS cloud_ctl cloud_sim)
    if(TARGET ${tool})
        install(TARGETS ${tool} COMPONENT tools)
        cloud_svr_install_manuals(tools ${tool}.1)
    endif()
endforeach()
if(TARGET cloud_ctl)
    install(FILES tools/cloud_ctl/cloud_ctl.bash COMPONENT tools RENAME cloud_ctl
            DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
endif()

if(TARGET cloud_svr_memdebug)
    # Nothing is linked with it: its place is not among the libraries that anybody looks for.
    install(TARGETS cloud_svr_memdebug COMPONENT memdebug
            LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/cloud_svr)
    cloud_svr_install_manuals(memdebug libcloud_svr_memdebug.3)
endif()
