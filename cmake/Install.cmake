# Installs programs, pages and examples where Debian has them, in three components: agent, lab and doc.
include(GNUInstallDirs)

set(SYSTEMD_UNIT_DIR lib/systemd/system CACHE STRING "Folder of the service unit, below the prefix or absolute")
# Debian wants pages compressed, a copyright file and a changelog; scripts/package.sh makes them.
set(DEBIAN_FILES "" CACHE PATH "Folder of the files that only the packages have, or nothing")
set(pages_from packaging)
set(compressed "")
if(DEBIAN_FILES)
  set(pages_from ${DEBIAN_FILES})
  set(compressed .gz)
endif()
set(agent_examples ${CMAKE_INSTALL_DOCDIR}/examples)

install(TARGETS tunnel-client DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT agent)
install(FILES ${pages_from}/tunnel-client.8${compressed} DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT agent)
install(FILES packaging/systemd/tunnel-client.service DESTINATION ${SYSTEMD_UNIT_DIR} COMPONENT agent)
install(FILES packaging/examples/tunnel-client.json DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/tunnel-client
  COMPONENT agent)
# It will hold passwords.
install(FILES packaging/examples/environment DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/tunnel-client COMPONENT agent
  PERMISSIONS OWNER_READ OWNER_WRITE)
install(FILES packaging/systemd/egress.conf packaging/examples/90-tunnel-client.conf DESTINATION ${agent_examples}
  COMPONENT doc)
install(PROGRAMS packaging/sysv/tunnel-client DESTINATION ${agent_examples}/sysv COMPONENT doc)
file(GLOB pages docs/*.md)
install(FILES README.md ${pages} DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc)

if(BUILD_LAB)
  install(TARGETS tunnel-lab DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT lab)
  install(FILES ${pages_from}/tunnel-lab.1${compressed} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT lab)
endif()

if(DEBIAN_FILES)
  install(FILES ${DEBIAN_FILES}/changelog.Debian.gz DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/tunnel-client COMPONENT agent)
  install(FILES packaging/debian/tunnel-client.copyright RENAME copyright
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/tunnel-client COMPONENT agent)
  install(FILES ${DEBIAN_FILES}/lab/changelog.Debian.gz DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/tunnel-lab COMPONENT lab)
  install(FILES packaging/debian/tunnel-lab.copyright RENAME copyright
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/tunnel-lab COMPONENT lab)
endif()
