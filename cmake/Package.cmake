# Debian packages; scripts/package.sh prepares what it needs and calls cpack.
set(DEBIAN_VERSION ${PROJECT_VERSION}-1 CACHE STRING "Version of the packages")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "tunnel-client")
set(CPACK_PACKAGE_VERSION ${DEBIAN_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "tunnel-client developers <developers@tunnel-client.invalid>")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_COMPONENTS_ALL agent doc lab)
set(CPACK_COMPONENT_AGENT_GROUP client)
set(CPACK_COMPONENT_DOC_GROUP client)
set(CPACK_COMPONENT_LAB_GROUP lab)

set(CPACK_DEBIAN_CLIENT_PACKAGE_NAME tunnel-client)
set(CPACK_DEBIAN_CLIENT_PACKAGE_SECTION net)
set(CPACK_DEBIAN_CLIENT_DESCRIPTION "device-side reverse-tunnel agent
Lets remote clients reach TCP services of a device behind a firewall:
registers the device with a cloud, holds one outbound connection to a
tunnel server, and carries the sessions that the server opens to local
services.")
set(CPACK_DEBIAN_CLIENT_PACKAGE_CONTROL_EXTRA
  ${PROJECT_BINARY_DIR}/packaging/conffiles ${PROJECT_SOURCE_DIR}/packaging/debian/postinst
  ${PROJECT_SOURCE_DIR}/packaging/debian/prerm ${PROJECT_SOURCE_DIR}/packaging/debian/postrm)
configure_file(packaging/debian/tunnel-client.conffiles ${PROJECT_BINARY_DIR}/packaging/conffiles COPYONLY)

set(CPACK_DEBIAN_LAB_PACKAGE_NAME tunnel-lab)
set(CPACK_DEBIAN_LAB_PACKAGE_SECTION net)
set(CPACK_DEBIAN_LAB_DESCRIPTION "cloud on the bench for tunnel-client
Plays the SSO service, the registration API and the tunnel server in one
process, so that a device can be brought up, watched and tested without
the real cloud.")

include(CPack)
