# The Debian package of relay_server: `make package`. Its files belong to a component of their own,
# which an ordinary `cmake --install` leaves out.

set(folder ${CMAKE_CURRENT_LIST_DIR})
set(made ${CMAKE_CURRENT_BINARY_DIR}/debian)
set(component relay_server)
set(package relay-server)
set(documents usr/share/doc/${package})

# The example as shipped, but for the access log: a file, which logrotate knows.
file(READ relay_server.json example)
string(REPLACE "\"access_log\": \"-\"" "\"access_log\": \"/var/log/relay_server/access.log\""
    installed "${example}")
if(installed STREQUAL example)
    message(FATAL_ERROR "relay_server.json has no line \"access_log\": \"-\" to replace.")
endif()
file(WRITE ${made}/relay_server.json "${installed}")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS relay_server.json)

function(debian_file source folder name)
    install(FILES ${source} DESTINATION ${folder} RENAME ${name} COMPONENT ${component}
        EXCLUDE_FROM_ALL PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endfunction()

# Without name and time in it, the same text gives the same bytes.
function(compressed_file source folder name)
    install(CODE "
        execute_process(COMMAND gzip -9n INPUT_FILE ${source} OUTPUT_FILE ${made}/${name}
            COMMAND_ERROR_IS_FATAL ANY)" COMPONENT ${component} EXCLUDE_FROM_ALL)
    debian_file(${made}/${name} ${folder} ${name})
endfunction()

install(TARGETS relay_server RUNTIME DESTINATION /usr/sbin COMPONENT ${component} EXCLUDE_FROM_ALL)
debian_file(${made}/relay_server.json /etc/cloud_relay relay_server.json)
debian_file(${folder}/policy.json /etc/cloud_relay policy.json)
debian_file(${folder}/relay_server.logrotate /etc/logrotate.d relay_server)
debian_file(${folder}/relay_server.service /lib/systemd/system relay_server.service)
debian_file(${folder}/copyright /${documents} copyright)
debian_file(${CMAKE_SOURCE_DIR}/docs/relay.md /${documents} relay.md)
compressed_file(${folder}/changelog /${documents} changelog.Debian.gz)
compressed_file(${CMAKE_SOURCE_DIR}/CHANGELOG.md /${documents} changelog.gz)
compressed_file(${CMAKE_SOURCE_DIR}/docs/man/relay_server.8 /usr/share/man/man8 relay_server.8.gz)

file(WRITE ${made}/conffiles "/etc/cloud_relay/policy.json\n/etc/cloud_relay/relay_server.json\n"
    "/etc/logrotate.d/relay_server\n")

set(CPACK_GENERATOR DEB)
set(CPACK_INSTALL_CMAKE_PROJECTS ${CMAKE_BINARY_DIR} relay_server ${component} /)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_SOURCE_DIR}/build/package)
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_PACKAGE_NAME ${package})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGE_CONTACT "The cloud_relay_client authors <relay@example.net>")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "adduser, init-system-helpers (>= 1.52)")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "logrotate")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "relay of HTTP requests to devices behind NAT
Devices keep one TLS connection to relay_server, users open the web pages
of these devices through it, and operators have a dashboard, figures for
Prometheus and devices' web tokens on a listener of their own.")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${folder}/postinst ${folder}/prerm ${folder}/postrm ${made}/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
