# Debian packages of what install.cmake installs: cpack -G DEB, with the preset package
# (scripts/package.sh, docs/packaging.md). Each package is a group of components; what is Debian's
# own is in packaging/debian/, control files in a folder of the package's name.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME cloud-svr)
set(CPACK_PACKAGE_CONTACT "cloud_svr developers <cloud-svr@example.com>")
set(CPACK_SET_DESTDIR ON) # one file is below /etc
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# What Debian wants in a package and an installation from source doesn't have.
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/package_stage.cmake)
set(CPACK_DEBIAN_FILES ${PROJECT_SOURCE_DIR}/packaging)

# cloud_svr_package(GROUP NAME SECTION DESCRIPTION COMPONENTS...)
macro(cloud_svr_package group name section description)
    string(TOUPPER ${group} upper)
    foreach(component ${ARGN})
        string(TOUPPER ${component} upper_component)
        list(APPEND CPACK_COMPONENTS_ALL ${component})
        set(CPACK_COMPONENT_${upper_component}_GROUP ${group})
    endforeach()
    set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
    set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
    set(CPACK_DEBIAN_${upper}_DESCRIPTION "${description}")
    file(GLOB CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA CONFIGURE_DEPENDS
         ${PROJECT_SOURCE_DIR}/packaging/debian/${name}/*)
    list(APPEND CPACK_DEBIAN_GROUPS ${group})
endmacro()

set(about "
cloud_svr keeps one TLS connection from a device to its cloud and lets
every process on the device share it.")

cloud_svr_package(service cloud-svr net
    "one TLS connection to the cloud for every local process${about}
.
This package contains the daemon, started by systemd."
    daemon systemd)
set(CPACK_DEBIAN_SERVICE_PACKAGE_DEPENDS
    "systemd | systemd-standalone-sysusers | systemd-sysusers")

cloud_svr_package(library libcloud-svr-client0 libs
    "client library of cloud_svr${about}
.
This package contains the library that local processes talk to it with."
    client)

cloud_svr_package(development libcloud-svr-client-dev libdevel
    "client library of cloud_svr (development files)${about}
.
This package contains what clients and plug-ins are built with: headers,
static library, manual pages."
    client_dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libcloud-svr-client0 (= ${PROJECT_VERSION}), libcjson-dev")

cloud_svr_package(tools cloud-svr-tools net
    "command-line client of cloud_svr and a simulated cloud${about}
.
This package contains cloud_ctl, a client for the command line, cloud_sim,
which plays the cloud for tests, and an allocator that tracks memory."
    tools memdebug)

# CPack would have ldconfig called by scripts of its own beside the trigger. It makes none where
# there is a name for them, and leaves out a file that isn't there.
list(APPEND CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA none/postinst none/postrm)

include(CPack)
