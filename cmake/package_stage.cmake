# Run by cpack between installing and packing: strips what was built, compresses manual pages and
# adds what Debian wants in a package and an installation from source doesn't have.

function(run_for_each command)
    if(ARGN)
        separate_arguments(command UNIX_COMMAND "${command}")
        execute_process(COMMAND ${command} ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
    endif()
endfunction()

function(add_documents root package)
    set(files ${CPACK_DEBIAN_FILES}/debian)
    set(documents ${root}/usr/share/doc/${package})
    file(COPY ${files}/copyright ${files}/changelog DESTINATION ${documents} NO_SOURCE_PERMISSIONS)
    if(EXISTS ${files}/${package}.lintian-overrides)
        set(overrides ${root}/usr/share/lintian/overrides)
        file(COPY ${files}/${package}.lintian-overrides DESTINATION ${overrides}
             NO_SOURCE_PERMISSIONS)
        file(RENAME ${overrides}/${package}.lintian-overrides ${overrides}/${package})
    endif()
    if(package STREQUAL "cloud-svr")
        file(COPY ${CPACK_DEBIAN_FILES}/cloud_svr.init DESTINATION ${documents}/examples
             NO_SOURCE_PERMISSIONS)
    endif()
endfunction()

set(notes "--remove-section=.comment --remove-section=.note")
foreach(group IN LISTS CPACK_DEBIAN_GROUPS)
    string(TOUPPER ${group} upper)
    set(root ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${group})
    set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    add_documents(${root} ${package})
    file(GLOB texts ${root}/usr/share/man/*/* ${root}/usr/share/doc/${package}/changelog)
    run_for_each("gzip -9n" ${texts})
    # The development package's link to the library isn't there to be followed.
    file(GLOB_RECURSE libraries ${root}/usr/lib/*.so.[0-9] ${root}/usr/lib/*/cloud_svr/*.so)
    file(GLOB programs ${root}/usr/bin/* ${root}/usr/sbin/*)
    run_for_each("strip --strip-unneeded ${notes}" ${libraries} ${programs})
    file(GLOB_RECURSE archives ${root}/usr/lib/*.a)
    run_for_each("strip --strip-debug --enable-deterministic-archives ${notes}" ${archives})
    # The packages depend on the sources alone, not on when they were made.
    if(DEFINED ENV{SOURCE_DATE_EPOCH})
        file(GLOB_RECURSE entries LIST_DIRECTORIES true ${root}/*)
        run_for_each("touch -h -d @$ENV{SOURCE_DATE_EPOCH}" ${entries})
    endif()
endforeach()
